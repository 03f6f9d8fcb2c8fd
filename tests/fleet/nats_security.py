"""Certificates and users of NATS servers, made by openssl: an authority, an operator with one account, and users of it."""
import base64
import binascii
import json
import os
import subprocess
import time

OPERATOR, ACCOUNT, USER, SEED = 14 << 3, 0, 20 << 3, 18 << 3  # First bytes of keys in NATS' spelling.
UNLIMITED = {name: -1 for name in ("subs", "data", "payload", "imports", "exports", "conn", "leaf", "mem_storage", "disk_storage",
                                   "streams", "consumer")}


def openssl(*words, **options):
    return subprocess.run(["openssl", *words], check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, **options).stdout


def base64url(data):
    return base64.urlsafe_b64encode(data).rstrip(b"=").decode()


class Authority:
    """Signs certificates with this folder's ca.pem."""

    def __init__(self, folder):
        self.folder = folder
        os.makedirs(folder)
        self._request("ca", "-x509", "-subj", f"/CN={os.path.basename(folder)}", "-out", self.path("ca.pem"))

    def path(self, name):
        return os.path.join(self.folder, name)

    def _request(self, name, *words):
        openssl("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout", self.path(name + ".key"), *words)

    def sign(self, name, names):
        """The paths of a certificate for these names, as "DNS:localhost", and of its key."""
        self._request(name, "-subj", f"/CN={name}", "-out", self.path(name + ".csr"))
        with open(self.path(name + ".ext"), "w", encoding="ascii") as file:
            file.write(f"subjectAltName={names}\n")
        openssl("x509", "-req", "-in", self.path(name + ".csr"), "-CA", self.path("ca.pem"), "-CAkey", self.path("ca.key"),
                "-CAcreateserial", "-extfile", self.path(name + ".ext"), "-out", self.path(name + ".pem"))
        return self.path(name + ".pem"), self.path(name + ".key")


class Key:
    """An Ed25519 key in a file."""

    def __init__(self, path, prefix):
        self.path, self.prefix = path, prefix
        openssl("genpkey", "-algorithm", "ed25519", "-out", path)
        self.name = self._spell([prefix], openssl("pkey", "-in", path, "-pubout", "-outform", "DER")[-32:])

    def _spell(self, first, raw):
        data = bytes(first) + raw
        return base64.b32encode(data + binascii.crc_hqx(data, 0).to_bytes(2, "little")).rstrip(b"=").decode()

    def seed(self):
        return self._spell([SEED | self.prefix >> 5, (self.prefix & 31) << 3],
                           openssl("pkey", "-in", self.path, "-outform", "DER")[-32:])

    def sign(self, data):
        with open(self.path + ".data", "wb") as file:
            file.write(data)
        return openssl("pkeyutl", "-sign", "-inkey", self.path, "-rawin", "-in", self.path + ".data")

    def token(self, subject, kind, claims):
        """What this key says of another one."""
        head = {"typ": "JWT", "alg": "ed25519-nkey"}
        body = {"jti": subject, "iat": int(time.time()) - 60, "iss": self.name, "name": kind, "sub": subject,
                "nats": {**claims, "type": kind, "version": 2}}
        text = ".".join(base64url(json.dumps(each).encode()) for each in (head, body))
        return f"{text}.{base64url(self.sign(text.encode()))}"


class Operator:
    """An operator, the account of the servers, and one that may use JetStream."""

    def __init__(self, folder):
        self.folder = folder
        os.makedirs(folder)
        operator = Key(self.path("operator"), OPERATOR)
        self.account, system = Key(self.path("account"), ACCOUNT), Key(self.path("system"), ACCOUNT)
        tokens = "\n".join(f"{key.name}: {operator.token(key.name, 'account', {'limits': limits})}" for key, limits in (
            (self.account, {**UNLIMITED, "wildcards": True}), (system, {"subs": -1, "data": -1, "payload": -1, "conn": -1})))
        self.config = (f"operator: {operator.token(operator.name, 'operator', {})}\nsystem_account: {system.name}\n"
                       f"resolver: MEMORY\nresolver_preload: {{\n{tokens}\n}}\n")

    def path(self, name):
        return os.path.join(self.folder, name)

    def user(self, name, **claims):
        """The key and the token of a new user."""
        key = Key(self.path(name), USER)
        return key, self.account.token(key.name, "user", {"subs": -1, "data": -1, "payload": -1, **claims})

    @staticmethod
    def credentials(key, token):
        """The text of a credentials file."""
        parts = (("NATS USER JWT", token), ("USER NKEY SEED", key.seed()))
        return "\n".join(f"-----BEGIN {name}-----\n{text}\n------END {name}------\n" for name, text in parts)
