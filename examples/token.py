#!/usr/bin/env python3
"""Signs a file by SM2 with a keypair of a token, through PKCS#11; makes it if there is none.

  token.py LIBRARY TOKEN LABEL FILE SIGNATURE PUBLIC_KEY      the PIN is read from standard input

SIGNATURE becomes DER and PUBLIC_KEY becomes PEM, as openssl reads them. Needs PyKCS11 (Debian:
python3-pykcs11).
"""
import base64
import sys

from PyKCS11 import (CKA_CLASS, CKA_LABEL, CKA_TOKEN, CKF_RW_SESSION, CKF_SERIAL_SESSION,
                     CKO_PRIVATE_KEY, CKO_PUBLIC_KEY, Mechanism, PyKCS11Error, PyKCS11Lib)

# PKCS#11 has no numbers for SM2; docs/pkcs11.md lists these.
SM2_KEY_PAIR_GEN, SM2_SM3 = Mechanism(0x80534D20), Mechanism(0x80534D22)
CKA_PUBLIC_KEY_INFO = 0x129


def der_integer(number):
    number = number.lstrip(b"\0")
    if number[0] & 0x80:
        number = b"\0" + number
    return bytes([2, len(number)]) + number


def der_signature(signature):
    """The DER of r and s, which the token gives one behind the other."""
    numbers = der_integer(signature[:32]) + der_integer(signature[32:])
    return bytes([0x30, len(numbers)]) + numbers


def main(module, token, label, file, signature_file, key_file):
    library = PyKCS11Lib()
    library.load(module)
    slot = next(slot for slot in library.getSlotList(True)
                if library.getTokenInfo(slot).label.strip() == token)
    session = library.openSession(slot, CKF_SERIAL_SESSION | CKF_RW_SESSION)
    session.login(sys.stdin.readline().rstrip("\n"))
    name = [(CKA_LABEL, label), (CKA_TOKEN, True)]
    if not session.findObjects(name):
        session.generateKeyPair(name, name, SM2_KEY_PAIR_GEN)
    private, public = (session.findObjects([(CKA_CLASS, kind), *name])[0]
                       for kind in (CKO_PRIVATE_KEY, CKO_PUBLIC_KEY))
    with open(file, "rb") as document, open(signature_file, "wb") as output:
        output.write(der_signature(bytes(session.sign(private, document.read(), SM2_SM3))))
    info = bytes(session.getAttributeValue(public, [CKA_PUBLIC_KEY_INFO])[0])
    with open(key_file, "w") as output:
        output.write(f"-----BEGIN PUBLIC KEY-----\n{base64.encodebytes(info).decode()}"
                     "-----END PUBLIC KEY-----\n")
    session.logout()


try:
    main(*sys.argv[1:])
except PyKCS11Error as error:
    sys.exit(f"refused: {error}")
