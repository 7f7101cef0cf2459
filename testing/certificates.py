"""Certificates for the tests of TLS: an authority of their own, and what it signs."""

import datetime
import ipaddress
from pathlib import Path

from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec
from cryptography.x509.oid import NameOID

DAY = datetime.timedelta(days=1)


class Authority:
    """Signs certificates; its own stands in ca.pem of the folder."""

    def __init__(self, folder: Path) -> None:
        self._folder = folder
        self._key = ec.generate_private_key(ec.SECP256R1())
        self._name = x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, "authority of a test")])
        constraint = x509.BasicConstraints(ca=True, path_length=None)
        certificate = self._builder(self._name, self._key, -1, 1).add_extension(constraint, critical=True)
        self.path = folder / "ca.pem"
        self.path.write_bytes(self._signed(certificate))

    def issue(self, name: str, *, host: str = "localhost", begins: int = -1, ends: int = 1) -> tuple[Path, Path]:
        """The paths of a certificate and its key; it is valid from so many days on until so many days from now."""
        key = ec.generate_private_key(ec.SECP256R1())
        subject = x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, name)])
        names: list[x509.GeneralName] = [x509.DNSName(host)]
        if host == "localhost":
            names.append(x509.IPAddress(ipaddress.ip_address("127.0.0.1")))
        certificate = self._builder(subject, key, begins, ends)
        certificate = certificate.add_extension(x509.SubjectAlternativeName(names), critical=False)
        paths = self._folder / f"{name}.pem", self._folder / f"{name}.key"
        paths[0].write_bytes(self._signed(certificate))
        paths[1].write_bytes(
            key.private_bytes(
                serialization.Encoding.PEM, serialization.PrivateFormat.PKCS8, serialization.NoEncryption()
            )
        )
        return paths

    def _builder(
        self, subject: x509.Name, key: ec.EllipticCurvePrivateKey, begins: int, ends: int
    ) -> x509.CertificateBuilder:
        now = datetime.datetime.utcnow()
        builder = x509.CertificateBuilder().subject_name(subject).issuer_name(self._name).public_key(key.public_key())
        builder = builder.serial_number(x509.random_serial_number())
        return builder.not_valid_before(now + begins * DAY).not_valid_after(now + ends * DAY)

    def _signed(self, builder: x509.CertificateBuilder) -> bytes:
        return builder.sign(self._key, hashes.SHA256()).public_bytes(serialization.Encoding.PEM)
