// Reading the firewall tools' rule listings in-process, so that an inspection
// is one tool run instead of a shell pipeline through grep.
#pragma once

namespace cbsd::gating {

// How many lines of an `iptables -S` listing contain the rule text.  Legacy
// iptables and iptables-nft print the rule alike; iptables-nft may add a
// "# Warning: ..." comment line, which never contains a rule.
int count_lines_containing(const char* listing, const char* rule);

// How many lines of an `ebtables -L` listing are exactly the rule, with or
// without the one trailing blank that legacy ebtables prints after every
// rule (ebtables-nft prints none).
int count_rule_lines(const char* listing, const char* rule);

}  // namespace cbsd::gating
