"""A token through PyKCS11: SM2 and SM3, and what is refused. Leaves sm2.pem, sm2.sig and sm3 for openssl.

    pykcs11_client.py LIBRARY TOKEN PIN
"""
import base64
import sys

import PyKCS11
from PyKCS11 import CKA_CLASS, CKA_ID, CKA_LABEL, CKA_PRIVATE, CKA_SIGN, CKA_TOKEN, CKA_VERIFY, Mechanism

KEY_PAIR_GEN, SM2, SM2_SM3, ENCRYPT, ENCRYPT_C1C3C2 = range(0x80534D20, 0x80534D25)
SM3 = 0x80534D30
CKA_PUBLIC_KEY_INFO = 0x129


def refused(result, call, *arguments):
    """Expects the call to fail with this result."""
    try:
        call(*arguments)
    except PyKCS11.PyKCS11Error as error:
        if error.value == result:
            return
        raise
    raise AssertionError(f"{call.__name__} was not refused")


def integer(number):
    """DER of an unsigned number."""
    number = number.lstrip(b"\0") or b"\0"
    if number[0] & 0x80:
        number = b"\0" + number
    return bytes([2, len(number)]) + number


def main(library_path, label, pin):
    library = PyKCS11.PyKCS11Lib()
    library.load(library_path)
    slot = next(s for s in library.getSlotList(True) if library.getTokenInfo(s).label.strip() == label)
    session = library.openSession(slot, PyKCS11.CKF_SERIAL_SESSION | PyKCS11.CKF_RW_SESSION)
    refused(PyKCS11.CKR_PIN_INCORRECT, session.login, "wrong-pin")
    session.login(pin)

    name = [(CKA_TOKEN, True), (CKA_ID, b"\x09"), (CKA_LABEL, "sm2")]
    public, private = session.generateKeyPair(name + [(CKA_VERIFY, True)],
                                              name + [(CKA_PRIVATE, True), (CKA_SIGN, True)],
                                              mecha=Mechanism(KEY_PAIR_GEN))
    info = bytes(session.getAttributeValue(public, [CKA_PUBLIC_KEY_INFO])[0])
    with open("sm2.pem", "wb") as file:
        file.write(b"-----BEGIN PUBLIC KEY-----\n" + base64.encodebytes(info) + b"-----END PUBLIC KEY-----\n")

    with open("message", "rb") as file:
        message = file.read()
    signature = bytes(session.sign(private, message, Mechanism(SM2_SM3)))
    assert len(signature) == 64 and session.verify(public, message, signature, Mechanism(SM2_SM3))
    numbers = integer(signature[:32]) + integer(signature[32:])
    with open("sm2.sig", "wb") as file:
        file.write(bytes([0x30, len(numbers)]) + numbers)
    assert not session.verify(public, message + b"!", signature, Mechanism(SM2_SM3))
    refused(PyKCS11.CKR_DATA_LEN_RANGE, session.sign, private, message, Mechanism(SM2))
    refused(PyKCS11.CKR_KEY_TYPE_INCONSISTENT, session.sign, private, message,
            Mechanism(PyKCS11.CKM_SHA256_RSA_PKCS))

    for mechanism in ENCRYPT, ENCRYPT_C1C3C2:
        cipher = bytes(session.encrypt(public, message, Mechanism(mechanism)))
        assert len(cipher) == len(message) + 97
        assert bytes(session.decrypt(private, cipher, Mechanism(mechanism))) == message
        refused(PyKCS11.CKR_ENCRYPTED_DATA_INVALID, session.decrypt, private, cipher[:-1] + b"!",
                Mechanism(mechanism))
    with open("sm3", "wb") as file:
        file.write(bytes(session.digest(message, Mechanism(SM3))))

    assert len(session.findObjects([(CKA_ID, b"\x09")])) == 2
    session.logout()
    found = session.findObjects([(CKA_ID, b"\x09")])
    assert [session.getAttributeValue(o, [CKA_CLASS])[0] for o in found] == [PyKCS11.CKO_PUBLIC_KEY]
    session.closeSession()


main(*sys.argv[1:])
