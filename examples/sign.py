#!/usr/bin/env python3
"""Signs a file by ECDSA with a P-256 keypair of the first device, from Python.

  sign.py FOLDER LABEL FILE SIGNATURE      the PIN is read from standard input
"""
import ctypes
import hashlib
import sys

OK, PIN_TYPE_USER, ECDSA_SIGN = 1, 1, 2048

vakro = ctypes.CDLL("libvakro_device.so.0")
# Handles are pointers: without these lines Python would cut them to 32 bits.
for name in ("DeviceGetAllDevices", "DeviceGetDevice", "DeviceGetKeypair"):
    getattr(vakro, name).restype = ctypes.c_void_p
vakro.DeviceGetDevice.argtypes = [ctypes.c_void_p, ctypes.c_uint]
vakro.DeviceGetKeypair.argtypes = [ctypes.c_void_p, ctypes.c_int]
vakro.DeviceGetKeypairCount.argtypes = [ctypes.c_void_p]
vakro.DeviceGetKeypairLabel.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_int,
                                        ctypes.POINTER(ctypes.c_int)]
vakro.DeviceVerifyPwd.argtypes = [ctypes.c_void_p, ctypes.c_int, ctypes.c_char_p, ctypes.c_void_p]
vakro.DeviceSign.argtypes = [ctypes.c_void_p, ctypes.c_uint, ctypes.c_void_p, ctypes.c_char_p,
                             ctypes.c_int, ctypes.c_char_p, ctypes.c_int,
                             ctypes.POINTER(ctypes.c_int)]
for name in ("DeviceFreeKeypair", "DeviceFreeDevice", "DeviceFreeDevices"):
    getattr(vakro, name).argtypes = [ctypes.c_void_p]


def check(result):
    if result != OK:
        sys.exit(f"refused: {result}")


def find(device, label):
    """A handle to the keypair of this label."""
    for index in range(vakro.DeviceGetKeypairCount(device)):
        keypair, name = vakro.DeviceGetKeypair(device, index), ctypes.create_string_buffer(64)
        check(vakro.DeviceGetKeypairLabel(keypair, name, len(name), ctypes.c_int()))
        if name.value.decode() == label:
            return keypair
        vakro.DeviceFreeKeypair(keypair)
    sys.exit(f"there is no keypair {label}")


def sign(keypair, digest):
    size = ctypes.c_int()
    check(vakro.DeviceSign(keypair, ECDSA_SIGN, None, digest, len(digest), None, 0, size))
    signature = ctypes.create_string_buffer(size.value)
    check(vakro.DeviceSign(keypair, ECDSA_SIGN, None, digest, len(digest), signature,
                           len(signature), size))
    return signature.raw[:size.value]


folder, label, document, output = sys.argv[1:]
pin = sys.stdin.readline().rstrip("\n").encode()
check(vakro.DeviceInit())
check(vakro.DeviceSetKeyFolder(folder.encode()))
devices = vakro.DeviceGetAllDevices()
device = vakro.DeviceGetDevice(devices, 0)
if not device:
    sys.exit(f"there is no device in {folder}")
check(vakro.DeviceVerifyPwd(device, PIN_TYPE_USER, pin, None))
keypair = find(device, label)
with open(document, "rb") as source:
    signature = sign(keypair, hashlib.sha256(source.read()).digest())
with open(output, "wb") as target:
    target.write(signature)
vakro.DeviceFreeKeypair(keypair)
vakro.DeviceFreeDevice(device)
vakro.DeviceFreeDevices(devices)
vakro.DeviceEnd()
