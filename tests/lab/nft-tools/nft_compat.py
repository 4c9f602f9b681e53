#!/usr/bin/python3
"""`iptables` and `ebtables` for the tests' own commands in a router of the
nftables flavour, which has neither (tests/lab/nft_view.py): -I, -A, -D and
-F of the OUTPUT and BRIDGE_FORWARD rules the tests use, carried out with
`nft` on the daemon's tables (our rules) or the lab's (foreign rules).  Exit
status 1 for a deletion that finds nothing, 2 for anything else it does not
know, as the real tools do.  Never on the daemon's PATH; the router gives
the tests' commands tests/ on PYTHONPATH (lab/commands.py)."""
import os
import subprocess
import sys

from lab import nft_view

TOOLS = {"iptables": ("OUTPUT", nft_view.OUTPUT_CHAIN, nft_view.icmp_rule_for),
         "ebtables": ("BRIDGE_FORWARD", nft_view.BRIDGE_CHAIN, nft_view.bridge_rule_for)}


def nft(*commands):
    return subprocess.run(["nft", "-f", "-"], input="\n".join(commands) + "\n", text=True,
                          capture_output=True)


def change(action, family, chain, hook, table, add, listed):
    if action in ("-I", "-A"):
        verb = "insert" if action == "-I" else "add"
        done = nft(f"add table {family} {table}", f"add chain {family} {table} {chain} {{ {hook} }}",
                   f"{verb} rule {family} {table} {chain} {add}")
        return 0 if done.returncode == 0 else 4
    listing = subprocess.run(["nft", "-a", "list", "chain", family, table, chain],
                             capture_output=True, text=True).stdout
    for line in listing.splitlines():
        text, _, handle = line.strip().partition(" # handle ")
        if text == listed and handle:
            return 0 if nft(f"delete rule {family} {table} {chain} handle {handle}").returncode == 0 \
                else 4
    return 1


def main(tool, args):
    name, (family, chain, hook), rule_for = TOOLS[tool]
    if len(args) == 2 and args == ["-F", name]:
        for table in (nft_view.OUR_TABLE, nft_view.LAB_TABLE):
            nft(f"flush chain {family} {table} {chain}")
        return 0
    if len(args) < 3 or args[0] not in ("-I", "-A", "-D") or args[1] != name:
        print(f"{tool} (lab, nftables flavour): unsupported: {' '.join(args)}", file=sys.stderr)
        return 2
    try:
        table, add, listed = rule_for(" ".join(args[2:]))
    except ValueError as error:
        print(f"{tool} (lab, nftables flavour): {error}", file=sys.stderr)
        return 2
    return change(args[0], family, chain, hook, table, add, listed)


if __name__ == "__main__":
    sys.exit(main(os.path.basename(sys.argv[0]), sys.argv[1:]))
