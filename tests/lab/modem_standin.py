"""The modem state the `ubus` stand-in (or the lab's ucode modem manager)
answers from, /etc/lab/modem.json inside the router."""
import json

from .places import MODEM_STATE

DEFAULT_MODEM = {
    "manufacturer": "Larkspur Modules",
    "productmodule": "RQ5518L-M2",
    "SN": "LAB0000001",
    "imei": "860000000000001",
    "netstat": 4,
    "dlfreq": 3625000,
    "ulfreq": 3625000,
    "bandwidth": 20,
    "band": 48,
}


class ModemStandIn:
    """Needs Files."""

    def modem_state(self):
        text = self.read_file(MODEM_STATE)
        return json.loads(text) if text else {}

    def _write_modem(self, state):
        self.write_file(MODEM_STATE, json.dumps(state, indent=1) + "\n")

    def set_modem(self, **fields):
        """Changes modem members (None removes one from the replies).  Special
        members: raw={method: bytes or text} prints exactly those bytes;
        fail=True or [methods] makes those methods fail (fail_status, default 9);
        hang=True or [methods] makes them never answer (see hung_pid("ubus"));
        registered=False: no modem manager on the bus; ubusd=False: no bus at
        all; cli="pre2022": the CLI's short error form (tests/lab/README.md)."""
        state = self.modem_state()
        for name, value in fields.items():
            if name == "raw" and value is not None:
                value = {method: (data.decode("latin-1") if isinstance(data, bytes) else data)
                         for method, data in value.items()}
            if value is None:
                state.pop(name, None)
            else:
                state[name] = value
        self._write_modem(state)
