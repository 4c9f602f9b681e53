"""Conformance cases for a single-grant StandAlone CBSD, shaped on WInnForum's
CBSD test cases (WINNF-TS-0122: registration, grant, heartbeat,
relinquishment, deregistration, security) and its TLS profile (WINNF-TS-0065).

Each test plays the SAS side of one case with the simulator and checks the
case's pass criterion from outside the daemon: the gates (forwarding, the ICMP
drop, the bridge drops) and sasConfig.RadioEnable are "transmitting"; the
requests the simulator received are what the device said.  Our own rule is
stricter than the cases where the SAS withdraws the grant: every gate closed
and RadioEnable "0" within 1 s of that answer, and a relinquishment or a
deregistration only from a device that is already silent."""
import time

import pytest

from conformance_lab import (ALL_GATES_LIMIT, HEARTBEAT_INTERVAL, WITHDRAWAL_LIMIT, Case,
                             ceased_after_answer, closed_after_answer,
                             closing_steps, gates_when_asked, record_measure,
                             withdraw_on_authorized)
from lab.sas_lab import shared_pki
from sas_sim.client import relative

REGISTRATION_REQUIRED = ("userId", "fccId", "cbsdSerialNumber")


@pytest.fixture
def case(router):
    """Factory: case(**Case arguments) -> a Case, finished when the test ends."""
    made = []

    def make(**kwargs):
        made.append(Case(router, **kwargs))
        return made[-1]

    yield make
    for made_case in made:
        made_case.finish()


def registration_of(c):
    return c.sim.requests("registration")[0]["json"]["registrationRequest"][0]


# ----- registration ----------------------------------------------------------------


def test_WINNF_FT_C_REG_1(case):
    """Multi-step registration: the registration request carries userId, fccId
    and cbsdSerialNumber and no CPI-signed data; after the SAS accepts it the
    device asks for a grant and transmits only once a heartbeat authorises it."""
    c = case()
    c.authorized()
    request = registration_of(c)
    assert all(request.get(name) for name in REGISTRATION_REQUIRED), request
    assert "cpiSignatureData" not in request
    assert c.endpoints()[:4] == ["registration", "spectrumInquiry", "grant", "heartbeat"]
    assert c.heartbeats()[0]["operationState"] == "GRANTED"


def test_WINNF_FT_C_REG_5(case):
    """Single-step registration with CPI-signed data: the registration request
    carries cpiSignatureData (protectedHeader, encodedCpiSignedData,
    digitalSignature) with the installation data, and after the SAS accepts it
    the device goes on to ask for a grant."""
    c = case()
    with open(f"{c.pki}/cpi.p12", "rb") as key:
        c.r.write_file("/root/sas/cert/cpiKey/cpi.p12", key.read(), mode=0o600)
    c.configure(sasStepChoice="1")
    for option, value in (("cpiKeyFileName", "cpi.p12"), ("cpiKeyFilePassword", "cpi-test-pass")):
        c.r.uci_set("cert", option, value)
    for option, value in (("cpiId", "CPI-LAB-0001"), ("cpiName", "Lab Installer"),
                          ("installCertificationTime", "2025-06-01T12:00:00Z")):
        c.r.uci_set("cpi", option, value)
    c.start()
    assert c.sim.wait_for_request("grant", 1, 30), c.r.log_text()[-3000:]
    signed = registration_of(c).get("cpiSignatureData") or {}
    assert all(signed.get(name) for name in ("protectedHeader", "encodedCpiSignedData",
                                             "digitalSignature")), signed


def test_WINNF_FT_C_REG_7(case):
    """Re-registration after an installation parameter changed: the device
    gives its grant back and deregisters, then registers again.  Ours: the relinquishment and the deregistration find the device
    silent (gates closed, RadioEnable "0")."""
    c = case()
    c.authorized()
    c.set("config", "antennaAzimuth", "90")
    assert c.r.wait_for(lambda: len(c.sim.requests("registration")) >= 2, 30), c.endpoints()
    seen = c.endpoints()
    again = seen.index("registration", 1)
    assert seen[again - 2:again] == ["relinquishment", "deregistration"], seen
    asked = gates_when_asked(c, "relinquishment") + gates_when_asked(c, "deregistration")
    assert asked and all(sample["closed"] for sample in asked), asked


def refused_always(case, endpoint, code):
    """A case whose SAS answers every `endpoint` request with `code`: the
    device asks, and does not transmit for the next 2 s."""
    c = case()
    c.sim.set_default(endpoint, responseCode=code)
    c.start()
    assert c.sim.wait_for_request(endpoint, 1, 20), c.r.log_text()[-3000:]
    assert c.stays_silent(2)
    return c


def refused_registration(case, code):
    c = refused_always(case, "registration", code)
    assert c.endpoints() == ["registration"] * len(c.endpoints()), c.endpoints()
    assert c.status() == "Unregistered"


def test_WINNF_FT_C_REG_8(case):
    """Registration refused with 102 (MISSING_PARAM): no grant is asked for and
    the device does not transmit."""
    refused_registration(case, 102)


def test_WINNF_FT_C_REG_10(case):
    """Registration answered 200 (REG_PENDING): the device stays unregistered,
    asks for no grant and does not transmit."""
    refused_registration(case, 200)


def test_WINNF_FT_C_REG_12(case):
    """Registration refused with 103 (INVALID_VALUE): no grant, no transmission."""
    refused_registration(case, 103)


def test_WINNF_FT_C_REG_14(case):
    """Registration refused with 101 (BLACKLISTED): no grant, no transmission."""
    refused_registration(case, 101)


def test_WINNF_FT_C_REG_16(case):
    """Registration refused with 100 (VERSION, unsupported protocol version):
    no grant, no transmission."""
    refused_registration(case, 100)


def test_WINNF_FT_C_REG_18(case):
    """Registration refused with 201 (GROUP_ERROR): no grant, no transmission."""
    refused_registration(case, 201)


# ----- grant -----------------------------------------------------------------------


def refused_grant(case, code):
    c = refused_always(case, "grant", code)
    assert "heartbeat" not in c.endpoints(), c.endpoints()
    assert c.status() == "Registered"


def test_WINNF_FT_C_GRA_1(case):
    """Grant refused with 400 (INTERFERENCE): no heartbeat on it, no transmission."""
    refused_grant(case, 400)


def test_WINNF_FT_C_GRA_2(case):
    """Grant refused with 401 (GRANT_CONFLICT): no heartbeat on it, no transmission."""
    refused_grant(case, 401)


# ----- heartbeat -------------------------------------------------------------------


def test_WINNF_FT_C_HBT_1(case):
    """Heartbeat success: the first heartbeat is sent in the Granted state, the
    device transmits only after its success, and then heartbeats as AUTHORIZED
    within each heartbeatInterval."""
    c = case()
    c.authorized()
    count = len(c.heartbeats())
    beats = c.sim.wait_for_request("heartbeat", count + 2, 3 * HEARTBEAT_INTERVAL + 3)
    states = [b["json"]["heartbeatRequest"][0]["operationState"] for b in beats]
    assert states[0] == "GRANTED" and set(states[count:]) == {"AUTHORIZED"}, states
    gaps = [b["time"] - a["time"] for a, b in zip(beats[1:], beats[2:])]
    assert all(g <= HEARTBEAT_INTERVAL + 1.5 for g in gaps), gaps


# A withdrawal: RadioEnable "0" and forwarding off within WITHDRAWAL_LIMIT of
# the answer, every gate within ALL_GATES_LIMIT ("within 1 s" in the cases
# below means the first).
def measure_withdrawal(c, answered, label):
    ceased = ceased_after_answer(answered)
    seconds = closed_after_answer(answered)
    steps = closing_steps(answered)
    record_measure(f"heartbeat {label} -> all gates closed and RadioEnable 0",
                   {"seconds": None if seconds is None else round(seconds, 2),
                    "forwarding_off": None if ceased is None else round(ceased, 2),
                    "steps": steps})
    assert ceased is not None and ceased <= WITHDRAWAL_LIMIT, (ceased, steps)
    assert seconds is not None and seconds <= ALL_GATES_LIMIT, (seconds, steps)


def test_WINNF_FT_C_HBT_3(case):
    """Heartbeat answered 105 (DEREGISTER) while Authorized: the device stops
    transmitting (within 60 s) and deregisters.  Ours: RadioEnable "0" and
    forwarding off within 1 s of the answer, every gate closed soon after, and
    the deregistration only from a silent device."""
    c = case()
    answered = withdraw_on_authorized(c, 105, registration={"responseCode": 200})
    measure_withdrawal(c, answered, "105 DEREGISTER")
    assert c.sim.wait_for_request("deregistration", 1, 10), c.endpoints()
    asked = gates_when_asked(c, "relinquishment") + gates_when_asked(c, "deregistration")
    assert all(sample["closed"] for sample in asked), asked


def test_WINNF_FT_C_HBT_4(case):
    """Heartbeat answered 500 (TERMINATED_GRANT) while Authorized: the device
    stops transmitting (within 60 s) and gives the grant up.  Ours: within 1 s
    of the answer, and a relinquishment only from a silent device."""
    c = case()
    answered = withdraw_on_authorized(c, 500, grant={"responseCode": 400})
    measure_withdrawal(c, answered, "500 TERMINATED_GRANT")
    asked = gates_when_asked(c, "relinquishment")
    assert all(sample["closed"] for sample in asked), asked
    assert c.status() == "Registered"


def test_WINNF_FT_C_HBT_5(case):
    """First heartbeat answered 501 (SUSPENDED_GRANT): the device never
    transmits and keeps the grant (Granted)."""
    c = case()
    c.sim.set_default("heartbeat", responseCode=501)
    c.start()
    assert c.sim.wait_for_request("heartbeat", 1, 25), c.r.log_text()[-3000:]
    assert c.stays_silent(3)
    assert c.status() == "Granted"
    assert "relinquishment" not in c.endpoints()


def test_WINNF_FT_C_HBT_6(case):
    """Heartbeat answered 501 (SUSPENDED_GRANT) while Authorized: the device
    stops transmitting (within 60 s) and heartbeats on as GRANTED.  Ours:
    within 1 s of the answer."""
    c = case()
    answered = withdraw_on_authorized(c, 501, heartbeat={"responseCode": 501})
    measure_withdrawal(c, answered, "501 SUSPENDED_GRANT")
    assert c.status() == "Granted"
    count = len(c.heartbeats())
    # A suspended grant is heartbeated again after 60 s.
    beats = c.sim.wait_for_request("heartbeat", count + 1, 70)
    assert len(beats) > count, c.endpoints()
    assert beats[count]["json"]["heartbeatRequest"][0]["operationState"] == "GRANTED"
    assert "relinquishment" not in c.endpoints()


def test_WINNF_FT_C_HBT_7(case):
    """Heartbeat answered 502 (UNSYNC_OP_PARAM) while Authorized: the device
    stops transmitting and gives the grant up.  Ours: within 1 s of the answer,
    and a relinquishment only from a silent device."""
    c = case()
    answered = withdraw_on_authorized(c, 502, grant={"responseCode": 400})
    measure_withdrawal(c, answered, "502 UNSYNC_OP_PARAM")
    asked = gates_when_asked(c, "relinquishment")
    assert asked and all(sample["closed"] for sample in asked), asked


def test_WINNF_FT_C_HBT_9(case):
    """No answer to the first heartbeat: the device never transmits."""
    c = case()
    c.sim.set_default("heartbeat", close=True)
    c.start()
    assert c.sim.wait_for_request("heartbeat", 1, 25), c.r.log_text()[-3000:]
    assert c.stays_silent(3)
    assert c.status() == "Granted"


def test_WINNF_FT_C_HBT_10(case):
    """No answer to the heartbeats of an Authorized device: it stops
    transmitting no later than 60 s after the last transmitExpireTime (the
    daemon: at that time plus 30 s)."""
    c = case()
    c.sim.set_default("heartbeat", set={"transmitExpireTime": relative(5)})
    c.authorized()
    c.sim.set_default("heartbeat", close=True)
    expire = c.sim.transmit_expire()
    assert c.r.wait_for(c.silent, expire + 65 - time.time(), 0.25), c.r.log_text()[-3000:]
    past = time.time() - c.sim.transmit_expire()
    record_measure("heartbeats unanswered -> silent, s after transmitExpireTime", round(past, 1))
    assert past <= 60


def test_WINNF_FT_C_HBT_11(case):
    """Grant renewal: with less than two hours of grant left, the heartbeat
    asks for renewal (grantRenew true); once the SAS answered with a new
    grantExpireTime, the device stops asking and keeps transmitting."""
    c = case()
    c.sim.set_default("grant", set={"grantExpireTime": relative(3600)})
    c.authorized()
    assert c.r.wait_for(lambda: any(b.get("grantRenew") is True for b in c.heartbeats()),
                        3 * HEARTBEAT_INTERVAL + 8), c.heartbeats()
    c.sim.set_default("heartbeat", set={"grantExpireTime": relative(7 * 86400)})
    count = len(c.heartbeats())
    beats = c.sim.wait_for_request("heartbeat", count + 3, 4 * HEARTBEAT_INTERVAL + 8)
    assert beats[-1]["json"]["heartbeatRequest"][0].get("grantRenew") is False, c.heartbeats()
    assert c.r.uci_get("operation", "GrantRenew") == "0"
    assert c.transmitting()


# ----- relinquishment and deregistration -------------------------------------------


def switched_off_when_authorized(c, endpoint):
    """Authorises the device and switches SAS operation off; returns the last
    heartbeat before the switch and the first `endpoint` request after it."""
    c.authorized()
    beat = c.heartbeats()[-1]
    c.set("config", "enableMode", "0")
    found = c.sim.wait_for_request(endpoint, 1, 15)
    assert found, c.endpoints()
    return beat, found[0]


def test_WINNF_FT_C_RLQ_1(case):
    """Relinquishment when SAS operation is switched off: the request names the
    device's cbsdId and grantId.  Ours: it finds the device silent."""
    beat, found = switched_off_when_authorized(case(), "relinquishment")
    request = found["json"]["relinquishmentRequest"][0]
    assert request["grantId"] == beat["grantId"] and request["cbsdId"], request
    assert found["gates"]["closed"], found["gates"]


def test_WINNF_FT_C_DRG_1(case):
    """Deregistration when SAS operation is switched off: after the
    relinquishment, a deregistration naming the cbsdId.  Ours: it finds the
    device silent."""
    c = case()
    beat, found = switched_off_when_authorized(c, "deregistration")
    assert found["json"]["deregistrationRequest"][0]["cbsdId"] == beat["cbsdId"]
    assert c.endpoints()[-2:] == ["relinquishment", "deregistration"]
    assert found["gates"]["closed"], found["gates"]


# ----- security --------------------------------------------------------------------

PROFILE_SUITES = {"ECDHE-ECDSA-AES128-GCM-SHA256", "ECDHE-ECDSA-AES256-GCM-SHA384",
                  "ECDHE-RSA-AES128-GCM-SHA256", "AES128-GCM-SHA256", "AES256-GCM-SHA384",
                  "TLS_AES_128_GCM_SHA256", "TLS_AES_256_GCM_SHA384",
                  "TLS_EMPTY_RENEGOTIATION_INFO_SCSV"}
REFUSED_LINE = "[SAS] TLS with the SAS refused (libcurl "


def test_WINNF_FT_C_SCS_1(case):
    """Mutual TLS with the SAS: the device presents its client certificate,
    offers TLS 1.2 or later and only the profile's AES-GCM suites, and the
    exchange goes through."""
    c = case()
    c.start()
    assert c.sim.wait_for_request("grant", 1, 25), c.r.log_text()[-3000:]
    assert c.sim.requests()[0]["client_subject"] == "O=CBSD Test,CN=cbsd-test-client"
    hello = c.sim.client_hellos()[0]
    record_measure("ClientHello", hello)
    assert set(hello["cipher_suites"]) <= PROFILE_SUITES, hello
    assert set(hello["versions"]) <= {"TLSv1.2", "TLSv1.3"}, hello


def refused_handshake(c, streak_of=1, env=None):
    """The daemon fails the handshake `streak_of` times in a row: nothing
    reaches the SAS, the device stays silent, one log line for the streak."""
    c.start(env=env)
    assert c.r.wait_for(lambda: len(c.sim.stats()["connection_times"]) >= streak_of,
                        15 * streak_of + 10), c.r.log_text()[-3000:]
    assert c.stays_silent(1)
    assert c.sim.requests() == []
    assert c.status() == "Unregistered"
    assert c.log_count(REFUSED_LINE) == 1, c.r.log_text()[-3000:]


def serving(case, certificate, key):
    """A case whose simulator presents `certificate` and `key` of the test PKI."""
    pki = shared_pki()
    return case(sim_args=["--cert", f"{pki}/{certificate}", "--key", f"{pki}/{key}"])


def test_WINNF_FT_C_SCS_2(case):
    """A SAS certificate revoked by the CRL: the handshake is refused and no
    request is sent."""
    refused_handshake(case(crl="crl_server.pem"))


def test_WINNF_FT_C_SCS_3(case):
    """An expired SAS certificate: the handshake is refused, no request."""
    refused_handshake(serving(case, "expired.pem", "expired.key"))


def test_WINNF_FT_C_SCS_4(case):
    """A SAS certificate from a CA the device does not trust: refused, no request."""
    refused_handshake(case(server_ca="other_ca.pem"))


def test_WINNF_FT_C_SCS_5(case):
    """A SAS certificate with a broken signature: refused, no request."""
    refused_handshake(serving(case, "corrupt.pem", "server.key"))


def test_WINNF_TS_0065_cipher_suites(case):
    """A SAS that offers only AES128-SHA (no suite of the profile): refused
    before any request, attempt after attempt, with one log line for the
    streak; the device never offered AES128-SHA."""
    c = case(sim_args=["--ciphers", "AES128-SHA", "--tls-version", "1.2"])
    refused_handshake(c, streak_of=2)
    offered = {suite for hello in c.sim.client_hellos() for suite in hello["cipher_suites"]}
    assert "AES128-SHA" not in offered and offered <= PROFILE_SUITES, offered


OPENSSL_ANYTHING_GOES = """openssl_conf = lab_conf
[lab_conf]
ssl_conf = lab_ssl
[lab_ssl]
system_default = lab_default
[lab_default]
MinProtocol = TLSv1
CipherString = ALL:@SECLEVEL=0
"""


def test_WINNF_TS_0065_tls_1_1(case):
    """A SAS that speaks only TLS 1.1: refused by what the daemon sets, even
    where OpenSSL's own defaults allow TLS 1.1 at security level 0 (checked
    with openssl s_client under the same configuration)."""
    c = case(sim_args=["--ciphers", "AES128-SHA:@SECLEVEL=0", "--tls-version", "1.1"])
    c.r.write_file("/etc/lab/openssl-tls1.cnf", OPENSSL_ANYTHING_GOES)
    env = {"OPENSSL_CONF": "/etc/lab/openssl-tls1.cnf"}
    pki = c.pki
    control = c.r.run(f"openssl s_client -connect 127.0.0.1:{c.sim.port} -tls1_1 "
                      f"-cert {pki}/client.pem -key {pki}/client.key </dev/null", env=env)
    assert "Protocol  : TLSv1.1" in control.stdout, control.stdout[-1500:] + control.stderr
    c.sim.clear()
    refused_handshake(c, env=env)


def test_WINNF_TS_0065_host_name_checked_when_asked(case):
    """With config.verifySasHost "1", a SAS certificate from the right CA for
    another host name is refused before any request."""
    c = serving(case, "wronghost.pem", "wronghost.key")
    c.configure(verifySasHost="1")
    refused_handshake(c)


def test_WINNF_TS_0065_required_ca(case):
    """With config.requireSasCa "1" and no SAS CA configured, nothing at all
    is sent to the SAS (no connection), with one log line."""
    c = case(server_ca=None)
    c.r.uci_set("cert", "serverCAFileName", "")
    c.configure(requireSasCa="1")
    c.start()
    line = "[SAS] no server CA file (none configured) and config.requireSasCa is 1"
    assert c.r.wait_for_log(line, 20), c.r.log_text()[-3000:]
    assert c.stays_silent(2)
    assert c.sim.stats()["connections"] == 0
    assert c.log_count(line) == 1
