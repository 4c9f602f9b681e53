"""The simulator's TLS side: its server context (certificate, client
certificate check, the cipher suites and the TLS version a test makes it
offer) and the record of what each client offered in its ClientHello."""
import ssl
import struct

# TLS versions a test can pin the simulator to (--tls-version).
VERSIONS = {"1.1": ssl.TLSVersion.TLSv1_1, "1.2": ssl.TLSVersion.TLSv1_2,
            "1.3": ssl.TLSVersion.TLSv1_3}
_VERSION_NAMES = {0x0301: "TLSv1", 0x0302: "TLSv1.1", 0x0303: "TLSv1.2", 0x0304: "TLSv1.3"}
_SUPPORTED_VERSIONS = 43
_HANDSHAKE, _CLIENT_HELLO = 22, 1


def subject_text(cert):
    """'O=...,CN=...' from ssl.getpeercert()'s subject tuples; '' without a certificate."""
    if not cert:
        return ""
    parts = []
    for rdn in cert.get("subject", ()):
        for key, value in rdn:
            short = {"commonName": "CN", "organizationName": "O", "countryName": "C",
                     "organizationalUnitName": "OU"}.get(key, key)
            parts.append(f"{short}={value}")
    return ",".join(parts)


def _suite_names():
    """Cipher suite number -> OpenSSL name, for every suite this OpenSSL knows."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.set_ciphers("ALL:COMPLEMENTOFALL:@SECLEVEL=0")
    names = {c["id"] & 0xFFFF: c["name"] for c in context.get_ciphers()}
    names[0x00FF] = "TLS_EMPTY_RENEGOTIATION_INFO_SCSV"
    return names


SUITE_NAMES = _suite_names()


def parse_client_hello(data):
    """{"cipher_suites": [names in the client's order], "versions": [...]} of a
    ClientHello handshake message (with its 4-byte header); None when it is not one."""
    if len(data) < 4 or data[0] != _CLIENT_HELLO:
        return None
    at = 4 + 2 + 32
    at += 1 + data[at]                       # session id
    (length,) = struct.unpack_from("!H", data, at)
    numbers = struct.unpack_from(f"!{length // 2}H", data, at + 2)
    at += 2 + length
    at += 1 + data[at]                       # compression methods
    versions = [_VERSION_NAMES.get(struct.unpack_from("!H", data, 4)[0], "?")]
    if at + 2 <= len(data):
        (total,) = struct.unpack_from("!H", data, at)
        at, end = at + 2, at + 2 + total
        while at + 4 <= end:
            kind, size = struct.unpack_from("!HH", data, at)
            if kind == _SUPPORTED_VERSIONS:
                count = data[at + 4] // 2
                offered = struct.unpack_from(f"!{count}H", data, at + 5)
                versions = [_VERSION_NAMES.get(v, f"0x{v:04X}") for v in offered]
            at += 4 + size
    return {"cipher_suites": [SUITE_NAMES.get(n, f"0x{n:04X}") for n in numbers],
            "versions": versions}


def make_context(options, on_hello):
    """Server context of the simulator; on_hello(parsed ClientHello) for each
    ClientHello a client sends, before the handshake is decided."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(options.cert, options.key)
    if options.client_ca:
        context.load_verify_locations(options.client_ca)
        context.verify_mode = ssl.CERT_REQUIRED
    if options.ciphers:
        # Suites up to TLS 1.2 only: a test that offers "AES128-SHA" also pins 1.2 or lower.
        context.set_ciphers(options.ciphers)
    if options.tls_version:
        context.minimum_version = context.maximum_version = VERSIONS[options.tls_version]

    def watch(conn, direction, version, content_type, msg_type, data):
        if direction == "read" and content_type == _HANDSHAKE and msg_type == _CLIENT_HELLO:
            try:
                hello = parse_client_hello(bytes(data))
            except (struct.error, IndexError):
                hello = {"cipher_suites": [], "versions": [], "unreadable": True}
            if hello is not None:
                on_hello(hello)

    context._msg_callback = watch  # the ssl module's own debugging hook (Python 3.8+)
    return context
