#!/usr/bin/python3
"""Throw-away test PKI for the SAS simulator and the daemon's TLS client.

Everything is generated at test time with the `openssl` command; nothing here
is secret and nothing generated is ever committed.

    /usr/bin/python3 tests/sas_sim/pki.py OUT_DIR

creates in OUT_DIR (all PEM, keys unencrypted unless said otherwise):

    ca.pem, ca.key              test CA (self-signed)
    server.pem, server.key      simulator certificate (CN=sas-sim, SAN 127.0.0.1, localhost)
    client.pem, client.key      device certificate (CN=cbsd-test-client)
    other.pem, other.key        a third certificate, revoked by crl_other.pem
    crl_other.pem               CRL of the CA revoking other.pem only (server stays valid)
    crl_server.pem              CRL of the CA revoking server.pem
    other_ca.pem, other_ca.key  an unrelated CA (for "wrong CA" tests)
    wronghost.pem, wronghost.key  a server certificate of the test CA for another host
                                (SAN DNS:sas.elsewhere.example only)
    expired.pem, expired.key    a server certificate that expired (needs libfaketime)
    corrupt.pem                 server.pem with a flipped signature bit (key: server.key)
    cpi.key                     CPI RSA 2048 key, PEM
    cpi.p12                     the same key and a certificate as PKCS#12, password CPI_PASSWORD
    cpi_ec.p12                  an EC (non-RSA) key as PKCS#12, same password
"""
import os
import shutil
import ssl
import subprocess
import sys

CPI_PASSWORD = "cpi-test-pass"
CLIENT_SUBJECT = "/O=CBSD Test/CN=cbsd-test-client"
SERVER_SUBJECT = "/O=SAS Simulator/CN=sas-sim"
OPENSSL = shutil.which("openssl") or "/usr/bin/openssl"

_FILES = ("ca.pem", "server.pem", "server.key", "client.pem", "client.key", "crl_other.pem",
          "crl_server.pem", "other_ca.pem", "wronghost.pem", "expired.pem", "corrupt.pem", "cpi.key", "cpi.p12", "cpi_ec.p12")


# Everything is made as if two days ago, so that a device whose wall clock is
# behind the simulator's (a fault the tests inject with libfaketime) still
# finds the certificates valid.  Without libfaketime they start now.
_FAKETIME = "/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1"
BACKDATED = {"LD_PRELOAD": _FAKETIME, "FAKETIME": "-2d"} if os.path.exists(_FAKETIME) else {}


def _run(*args, cwd, shift=None):
    # shift: another libfaketime offset than BACKDATED's (e.g. "-400d")
    env = {**os.environ, **BACKDATED, **({"FAKETIME": shift} if shift and BACKDATED else {})}
    subprocess.run([OPENSSL, *args], cwd=cwd, check=True, env=env,
                   stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)


def _ca_config(workdir):
    """Minimal `openssl ca` database, needed only to sign CRLs."""
    db = os.path.join(workdir, "ca-db")
    os.makedirs(db, exist_ok=True)
    open(os.path.join(db, "index.txt"), "w").close()
    with open(os.path.join(db, "crlnumber"), "w") as f:
        f.write("1000\n")
    conf = os.path.join(db, "ca.cnf")
    with open(conf, "w") as f:
        f.write(f"""[ ca ]
default_ca = test_ca
[ test_ca ]
database = {db}/index.txt
crlnumber = {db}/crlnumber
certificate = {workdir}/ca.pem
private_key = {workdir}/ca.key
default_md = sha256
default_crl_days = 3650
""")
    return conf, db


def _leaf(workdir, name, subject, ca="ca", extensions="", days=3650, shift=None):
    _run("req", "-newkey", "rsa:2048", "-nodes", "-keyout", f"{name}.key", "-out", f"{name}.csr",
         "-subj", subject, cwd=workdir)
    ext_file = os.path.join(workdir, f"{name}.ext")
    with open(ext_file, "w") as f:
        f.write("basicConstraints=CA:FALSE\n" + extensions)
    _run("x509", "-req", "-in", f"{name}.csr", "-CA", f"{ca}.pem", "-CAkey", f"{ca}.key",
         "-CAcreateserial", "-days", str(days), "-sha256", "-extfile", ext_file,
         "-out", f"{name}.pem", cwd=workdir, shift=shift)


def _corrupt(workdir, source, out):
    """A copy of a certificate with one bit of its signature flipped."""
    with open(os.path.join(workdir, source)) as f:
        der = bytearray(ssl.PEM_cert_to_DER_cert(f.read()))
    der[-1] ^= 0x01
    with open(os.path.join(workdir, out), "w") as f:
        f.write(ssl.DER_cert_to_PEM_cert(bytes(der)))


def _crl(workdir, revoked, out):
    """A fresh CA database per CRL, so each CRL revokes exactly `revoked`."""
    shutil.rmtree(os.path.join(workdir, "ca-db"), ignore_errors=True)
    conf, _ = _ca_config(workdir)
    _run("ca", "-config", conf, "-revoke", f"{revoked}.pem", cwd=workdir)
    _run("ca", "-config", conf, "-gencrl", "-out", out, cwd=workdir)


def generate(out_dir):
    """Creates the PKI in out_dir (skipped when it is already complete); returns out_dir."""
    os.makedirs(out_dir, exist_ok=True)
    if all(os.path.exists(os.path.join(out_dir, f)) for f in _FILES):
        return out_dir
    w = out_dir
    for ca, cn in (("ca", "CBSD Test CA"), ("other_ca", "Unrelated Test CA")):
        _run("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", f"{ca}.key",
             "-out", f"{ca}.pem", "-days", "3650", "-sha256", "-subj", f"/O=CBSD Test/CN={cn}",
             "-addext", "basicConstraints=critical,CA:TRUE",
             "-addext", "keyUsage=critical,keyCertSign,cRLSign", cwd=w)
    _leaf(w, "server", SERVER_SUBJECT,
          extensions="subjectAltName=IP:127.0.0.1,DNS:localhost\nextendedKeyUsage=serverAuth\n")
    _leaf(w, "wronghost", "/O=SAS Simulator/CN=sas.elsewhere.example",
          extensions="subjectAltName=DNS:sas.elsewhere.example\nextendedKeyUsage=serverAuth\n")
    # Server certificates of the simulator that a device must refuse: expired
    # (valid for a day, 400 days ago) and with a broken signature.
    server_ext = "subjectAltName=IP:127.0.0.1,DNS:localhost\nextendedKeyUsage=serverAuth\n"
    _leaf(w, "expired", SERVER_SUBJECT, extensions=server_ext, days=1, shift="-400d")
    _corrupt(w, "server.pem", "corrupt.pem")
    _leaf(w, "client", CLIENT_SUBJECT, extensions="extendedKeyUsage=clientAuth\n")
    _leaf(w, "other", "/O=CBSD Test/CN=revoked-other", extensions="extendedKeyUsage=clientAuth\n")
    _crl(w, "other", "crl_other.pem")
    _crl(w, "server", "crl_server.pem")
    # CPI key: RSA as plain PEM and as password-protected PKCS#12 with a certificate.
    _run("genpkey", "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048", "-out", "cpi.key",
         cwd=w)
    _run("req", "-x509", "-key", "cpi.key", "-out", "cpi.pem", "-days", "3650",
         "-subj", "/O=CBSD Test/CN=cpi-test", cwd=w)
    _run("pkcs12", "-export", "-inkey", "cpi.key", "-in", "cpi.pem", "-out", "cpi.p12",
         "-passout", f"pass:{CPI_PASSWORD}", cwd=w)
    _run("genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256",
         "-out", "cpi_ec.key", cwd=w)
    _run("req", "-x509", "-key", "cpi_ec.key", "-out", "cpi_ec.pem", "-days", "3650",
         "-subj", "/O=CBSD Test/CN=cpi-ec-test", cwd=w)
    _run("pkcs12", "-export", "-inkey", "cpi_ec.key", "-in", "cpi_ec.pem", "-out", "cpi_ec.p12",
         "-passout", f"pass:{CPI_PASSWORD}", cwd=w)
    for scratch in os.listdir(w):
        if scratch.endswith((".csr", ".ext", ".srl")):
            os.remove(os.path.join(w, scratch))
    shutil.rmtree(os.path.join(w, "ca-db"), ignore_errors=True)
    return out_dir


def install_device_certs(pki_dir, cert_root="/root/sas/cert", client_cert="cbsd.pem",
                         client_key="cbsd.key", server_ca="ca.pem", cpi_key="cpi.p12", crl=None):
    """Lays the credentials out as the daemon expects them:
    cert_root/{clientCert,clientKey,serverCA,cpiKey}/<name>, and the CRL (a file name of
    pki_dir such as "crl_other.pem", or None for none) as serverCA/server_crl.crl.
    A name of None skips that file.  Use cert_root="<dir>" to build a provisioning tree."""
    pairs = (("clientCert", client_cert, "client.pem"), ("clientKey", client_key, "client.key"),
             ("serverCA", server_ca, "ca.pem"), ("cpiKey", cpi_key, "cpi.p12"))
    for sub, name, source in pairs:
        os.makedirs(os.path.join(cert_root, sub), exist_ok=True)
        if name:
            shutil.copyfile(os.path.join(pki_dir, source), os.path.join(cert_root, sub, name))
    if crl:
        shutil.copyfile(os.path.join(pki_dir, crl),
                        os.path.join(cert_root, "serverCA", "server_crl.crl"))
    return cert_root


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(f"usage: {sys.argv[0]} OUT_DIR")
    try:
        generate(sys.argv[1])
    except subprocess.CalledProcessError as e:
        sys.exit(f"openssl failed: {' '.join(e.cmd)}\n{e.stderr.decode(errors='replace')}")
    print(sys.argv[1])
