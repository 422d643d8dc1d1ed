// The exported interface of libvakro_device.so, a crypto device module that plays a hardware
// token in software. One device is one file of the key folder "/etc/.VAKRO/SoftwareCert/".
//
// What holds for every function here:
//   Results      the VAKRO_ codes below; 1 is success. Nothing is logged.
//   Size query   a getter of bytes takes a buffer, its size and a length out-argument, in bytes.
//                A NULL buffer gives 1 and the needed length; a buffer that is too small gives -4
//                and the needed length; otherwise the bytes are copied, *length is their number
//                and the result is 1. Lengths of strings count the terminating NUL.
//   Handles      belong to the caller until given back with the DeviceFree function of their kind,
//                and must be given back before DeviceEnd. The module never keeps a caller's
//                pointer.
//   Threads      any function may be called from any thread between DeviceInit and DeviceEnd, but
//                a folder must not be scanned while another thread changes a device of it, nor a
//                list be read while another thread changes it. One recursive lock guards the rest.
//   Byte order   big-endian wherever a number stands in bytes.
//   OpenSSL      a thread's queue of errors is left as it was found.
//
// Usable from C11 and C++.
#ifndef VAKRO_DEVICE_H
#define VAKRO_DEVICE_H

#ifdef __cplusplus
extern "C" {
#endif

typedef struct DeviceSet DeviceSet;  // what one scan of the key folder found
typedef struct Device Device;        // one device
typedef struct Keypair Keypair;      // one keypair of a device, or a temporary one
typedef struct PublicKey PublicKey;  // a public key, independent of any device

enum VakroResult {
  VAKRO_OK = 1,
  VAKRO_FAILED = 0,             // memory, lock, file, primitive, or a refused argument
  VAKRO_INVALID_ARGUMENT = -1,  // a data-object id or length below 1; the count of a NULL set
  VAKRO_NULL_HANDLE = -2,
  VAKRO_BUFFER_TOO_SMALL = -4,
  VAKRO_WRONG_PIN = -5,
  VAKRO_ALREADY_EXISTS = -6,
  VAKRO_NO_SUCH_DATA = -7,
  VAKRO_NOT_VERIFIED = -8,  // the PIN has not been verified: no private key, no PIN
  VAKRO_NOT_SUPPORTED = -9,
  VAKRO_OUT_OF_RANGE = -21,  // offset and length reach beyond a data object
};

enum VakroAlgorithm {
  ALGORITHM_RSA = 1,
  ALGORITHM_ECC = 4,
  ALGORITHM_RSA_PKCS1_ENCRYPT = 16,
  ALGORITHM_RSA_RAW_ENCRYPT = 48,
  ALGORITHM_SM2_ENCRYPT = 64,
  ALGORITHM_RSA_PKCS1_SIGN = 256,
  ALGORITHM_RSA_RAW_SIGN = 768,
  ALGORITHM_ECDSA_SIGN = 2048,
  ALGORITHM_SM2_SIGN = 4096,
};

enum VakroAlgorithmClass {
  ALGORITHM_CLASS_ENCRYPT = 2,
  ALGORITHM_CLASS_SIGN = 5,
  ALGORITHM_CLASS_KEYPAIR = 7,
};

// WARNING: keypairs on P-192, P-224, P-384 and P-521 are for temporary use only. One that is stored
// can't be opened again, and after the next load no PIN opens its device, with all its other keys.
enum VakroCurve {
  CURVE_P192 = 1,  // temporary keypairs only
  CURVE_P224 = 2,  // temporary keypairs only
  CURVE_P256 = 3,
  CURVE_P384 = 4,  // temporary keypairs only
  CURVE_P521 = 5,  // temporary keypairs only
  CURVE_192 = 6,   // has a size and no group: unusable for keys
  CURVE_SM2 = 7,
};

enum VakroPinType { PIN_TYPE_USER = 1 };

// Parameters of RSA generation; a NULL record means exponent 65537, stored on the device.
typedef struct RSAKeypairParams {
  const unsigned char* exponent;  // big-endian; NULL means 65537
  int exponentLen;                // bytes at `exponent`
  int temporary;                  // not 0: make a temporary keypair
} RSAKeypairParams;

// Parameters of elliptic-curve generation; required.
typedef struct ECCKeypairParams {
  int curve;      // VakroCurve
  int temporary;  // not 0: make a temporary keypair
} ECCKeypairParams;

// --- Module ---------------------------------------------------------------------------------

// DeviceInit starts the module; call it before anything else. Returns 1, or 0 with the module
// stopped and nothing left allocated. Without SM2 support start succeeds all the same. A module
// that is started stays as it is, and the result is 1.
int DeviceInit(void);

// DeviceEnd stops the module, however often it was started; handles that are still held must not
// be used any more. Returns 1, also when the module is not started.
int DeviceEnd(void);

// DeviceSetKeyFolder names another key folder than /etc/.VAKRO/SoftwareCert/, until DeviceEnd. It
// need not exist; a relative path means what it means at each call that follows. Call it, like
// DeviceInit, while no other call runs.
//   folder  copied; with or without a trailing slash
// Returns 1; 0 when the module is not started, memory is out, or for NULL or an empty name: the
// folder then stays.
int DeviceSetKeyFolder(const char* folder);

// DeviceLockDevice and DeviceUnlockDevice take and release the module's one, recursive lock.
// `device` is not used and may be NULL. Return 1, or 0 on failure.
int DeviceLockDevice(Device* device);
int DeviceUnlockDevice(Device* device);

// DeviceIsSupportedAlgorithm2 says whether generation or a key operation carries out `algorithm`.
//   device     not read, may be NULL
//   bits       key size, read for ALGORITHM_RSA only
//   cls        VakroAlgorithmClass; not read for ALGORITHM_ECC
//   parameter  ALGORITHM_ECC: points to the curve, required. ALGORITHM_SM2_ENCRYPT: NULL, or
//              points to the hash id 0x7000 (SM3). Not read otherwise.
// Returns 1 or 0. Takes no lock.
int DeviceIsSupportedAlgorithm2(Device* device, int algorithm, int bits, int cls,
                                const int* parameter);

// --- Devices --------------------------------------------------------------------------------

// DeviceGetAllDevices scans the key folder and loads up to 64 devices in directory order. A
// damaged file is passed over in silence. Stale backups are removed; a device file that is missing
// or damaged is restored from its backup. Each call makes new, independent records.
// Returns a set, possibly empty, or NULL when the folder can't be listed, memory is out or the
// module is not started. Takes no module lock.
DeviceSet* DeviceGetAllDevices(void);

// DeviceGetDeviceCount returns the number of devices, 0 to 64; -1 for a NULL set.
int DeviceGetDeviceCount(DeviceSet* set);

// DeviceGetDevice returns a handle to the device at `index`, to be given back with
// DeviceFreeDevice; NULL for a NULL set, an index that names no device or a lock failure.
Device* DeviceGetDevice(DeviceSet* set, unsigned int index);

// DeviceFreeDevice gives a device handle back; the last reference frees the device. Returns 1
// (also for NULL), or 0 when the lock fails.
int DeviceFreeDevice(Device* device);

// DeviceFreeDevices gives the set back; devices held through other handles live on. Returns 1.
int DeviceFreeDevices(DeviceSet* set);

// DeviceGetLabel and DeviceGetSerialNumber: size query over a string of at most 63 characters and
// its NUL. `length` is required. Return 1 or -4; -2 for a NULL device. Take no lock.
int DeviceGetLabel(Device* device, unsigned char* buffer, int size, unsigned int* length);
int DeviceGetSerialNumber(Device* device, unsigned char* buffer, int size, unsigned int* length);

// --- PIN ------------------------------------------------------------------------------------

// DeviceVerifyPwd opens the device: it decrypts every private key with `pin`, any NUL-terminated
// string. A device without keypairs takes any PIN and keeps it. There is no retry counter.
//   retries  out, may be NULL; always -1
// Returns 1; -5 wrong PIN; -9 `type` is not PIN_TYPE_USER; 0 failure or NULL device. A device that
// is verified stays so, and then -5 changes nothing.
int DeviceVerifyPwd(Device* device, int type, const char* pin, int* retries);

// DeviceChangePwd re-encrypts every private key under `newPin` and rewrites the device file.
// Verifies the device by `oldPin` first if need be. Results as DeviceVerifyPwd; 0 also when the
// file could not be rewritten: the record then holds the new PIN, the file still the old one. 0
// with record and file untouched when the file has a keypair more or fewer than the record, or one
// under another PIN: another process has changed it; load the device anew. (No load takes a 65th
// keypair, or one with more than 10 certificates: with those it stays 0.) Certificates that the
// file has are taken over.
int DeviceChangePwd(Device* device, int type, const char* oldPin, const char* newPin, int* retries);

// --- Data objects ---------------------------------------------------------------------------
// Numbered byte strings in the device file; they need no PIN and every call reads the file anew.
// All return -1 for an id below 1, -2 for a NULL device, -7 for an id that does not exist.

// DeviceCreateData makes an object of `length` zero bytes; the size never changes. `reserved` is
// not read. Returns 1; -1 also for a length below 1; -6 the id exists; 0 failure.
int DeviceCreateData(Device* device, int id, int reserved, int length);

// DeviceReadDataEx copies from `offset` on what exists and fits into `buffer`; a short buffer is
// no error. A NULL buffer asks how many bytes there are from `offset` on.
//   length  out, may be NULL: bytes copied or available
// Returns 1; 0 for an offset outside the object or a failure.
int DeviceReadDataEx(Device* device, int id, int offset, unsigned char* buffer, int size,
                     unsigned int* length);

// DeviceWriteDataEx overwrites `length` bytes from `offset` on. Returns 1; -1 also for a length
// below 1 or NULL bytes; -21 the range leaves the object; 0 failure, the file as it was.
int DeviceWriteDataEx(Device* device, int id, int offset, const unsigned char* bytes, int length);

// DeviceDeleteData removes the object; the others keep their order. Returns 1, or 0 on failure.
int DeviceDeleteData(Device* device, int id);

// --- Keypairs and certificates --------------------------------------------------------------
// The plain getters take no lock. On a NULL handle those that return a status or a count give -2,
// the others 0.
//
// A change is made to the device file as it is by now, whatever other processes have stored since
// this record was loaded. 0, with file and record untouched, when the file's digest is wrong.

int DeviceGetKeypairCount(Device* device);

// DeviceGetKeypair returns a handle to keypair `index`, to be given back with DeviceFreeKeypair;
// it keeps the whole device alive. NULL for a NULL device, a bad index or a lock failure.
Keypair* DeviceGetKeypair(Device* device, int index);

// DeviceFreeKeypair gives a keypair handle back; frees a temporary or deleted keypair. Returns 1;
// -2 for NULL; 0 when the lock fails.
int DeviceFreeKeypair(Keypair* keypair);

unsigned int DeviceGetKeypairType(Keypair* keypair);       // the caller's value
unsigned int DeviceGetKeypairAlgorithm(Keypair* keypair);  // ALGORITHM_RSA or ALGORITHM_ECC
unsigned int DeviceGetKeypairBits(Keypair* keypair);

// DeviceGetKeypairLabel: size query over the label and its NUL. Returns 1 or -4.
int DeviceGetKeypairLabel(Keypair* keypair, char* buffer, int size, int* length);

int DeviceGetCertificateCount(Keypair* keypair);

// DeviceGetCertificate: size query over certificate `index`, the bytes as they were added.
// Returns 1 or -4; 0 for a bad index, nothing written.
int DeviceGetCertificate(Keypair* keypair, int index, unsigned char* buffer, int size, int* length);

// DeviceAddCertificate appends a certificate, unparsed, at most 10 to a keypair; the device file
// is written first. If the file has other certificates of this keypair, the record takes those over
// first. Returns 1; -8 PIN not verified; 0 refused or failed, nothing changed. The device file
// keeps one copy of equal certificates.
int DeviceAddCertificate(Keypair* keypair, const unsigned char* bytes, int length);

// DeviceDeleteCertificate removes certificate `index` of the record, wherever it stands in the
// file's list, which the record takes over as above. Returns 1, also when it was gone already; -8
// or 0 as above.
int DeviceDeleteCertificate(Keypair* keypair, int index);

// DeviceDeleteKeypair removes the keypair from its device and file, where it may stand under
// another PIN by now; the file must never have held data objects. `keypair` must be the only handle
// to it and is still to be given back. Returns 1; -8 PIN not verified; 0 temporary keypair or
// failure, nothing changed.
int DeviceDeleteKeypair(Keypair* keypair);

// DeviceGenerateKeypair makes a keypair, encrypts it under the PIN, stores it in the device file
// and hands out a handle; or makes a temporary one, which touches neither PIN nor file.
//   algorithm   ALGORITHM_RSA or ALGORITHM_ECC
//   bits        RSA: modulus bits. ECC: the size that belongs to the curve
//   parameters  RSAKeypairParams (may be NULL) or ECCKeypairParams (required)
//   type        the caller's value, not 0; with `label` it is unique on the device
//   label       NUL-terminated, at most 63 characters
// Returns 1; -6 type and label exist, here or in the file, where another process may have stored
// them; -8 PIN not verified; -9 other algorithm; 0 failure, also when the PIN does not open what
// the file holds by now; device and file are unchanged then. The module lock is not held while the
// key is made: what has changed meanwhile counts, so that another thread's keypair of this type and
// label gives -6 here.
// WARNING: a stored keypair on P-192, P-224, P-384 or P-521 gives 1 and leaves a device that no PIN
// opens after the next load (see VakroCurve).
int DeviceGenerateKeypair(Device* device, unsigned int algorithm, int bits, const void* parameters,
                          unsigned int type, const char* label, Keypair** out);

// DeviceImportKeypair stores a keypair from the crypto library's keypair encoding ("_KEYPAIR",
// algorithm word, body). Results as DeviceGenerateKeypair; -2 for a NULL device. Of elliptic curves
// it takes P-256 and SM2. Holds the module lock throughout.
int DeviceImportKeypair(Device* device, const unsigned char* encoding, int encodingLen,
                        unsigned int type, const char* label, Keypair** out);

// --- Public keys ----------------------------------------------------------------------------
// Need no PIN, no lock, no device.

// DeviceGetPublicKeyFromKeypair returns a new public key, or NULL. That of an SM2 keypair whose
// PIN has not been verified since loading can't verify or encrypt: its curve is not known yet.
PublicKey* DeviceGetPublicKeyFromKeypair(Keypair* keypair);

// DeviceImportPublicKey makes a public key from the crypto library's public-key encoding
// ("_PUBKEY_", algorithm word, body). `device` is not used. Returns 1 or 0.
int DeviceImportPublicKey(Device* device, const unsigned char* encoding, int encodingLen,
                          PublicKey** out);

// DeviceExportPublicKey: size query over the encoding. Returns 1 or -4; -2 for NULL.
int DeviceExportPublicKey(PublicKey* key, unsigned char* buffer, int size, int* length);

// DeviceFreePublicKey returns 1; -2 for NULL.
int DeviceFreePublicKey(PublicKey* key);

int DeviceGetPublicKeyAlgorithm(PublicKey* key);
int DeviceGetPublicKeyBits(PublicKey* key);

// --- Key operations -------------------------------------------------------------------------
// Nothing is hashed here: the caller passes the digest or block; an empty one may be NULL.
// `parameters` is never read.

// DeviceSign signs with the private key.
//   algorithm  256: PKCS#1 v1.5 padding of `data` (such as a DigestInfo); 768: a raw RSA block of
//              the modulus size; 2048: ECDSA; 4096: SM2, `data` is the 32-byte digest e
//   signature  RSA: the modulus size; ECDSA and SM2: DER SEQUENCE { r, s }, big-endian integers
// Returns 1; -4; -8 PIN not verified; -2 NULL keypair; 0 refused or failed. The size query answers
// the largest size (SM2: 80); the length after signing is the true one. Takes no module lock: a
// signature waits for nobody, and threads sign side by side.
int DeviceSign(Keypair* keypair, unsigned int algorithm, const void* parameters,
               const unsigned char* data, int dataLen, unsigned char* signature, int size,
               int* length);

// DeviceVerify returns 1 for a valid signature; anything else is not one.
int DeviceVerify(PublicKey* key, unsigned int algorithm, const void* parameters,
                 const unsigned char* data, int dataLen, const unsigned char* signature,
                 int signatureLen);

// DevicePrivateKeyDecrypt decrypts: 16 PKCS#1 v1.5, 48 raw RSA, 64 SM2 (C1 || C2 || C3, C1
// uncompressed). The RSA size query answers the modulus size. Returns 1; -4; -8; -2 NULL keypair;
// 0, with the output buffer free of plaintext.
int DevicePrivateKeyDecrypt(Keypair* keypair, unsigned int algorithm, const void* parameters,
                            const unsigned char* ciphertext, int ciphertextLen,
                            unsigned char* plaintext, int size, int* length);

// DevicePublicKeyEncrypt is the counterpart. An SM2 ciphertext is 97 bytes longer than the
// plaintext. Returns 1, -4 or 0.
int DevicePublicKeyEncrypt(PublicKey* key, unsigned int algorithm, const void* parameters,
                           const unsigned char* plaintext, int plaintextLen,
                           unsigned char* ciphertext, int size, int* length);

#ifdef __cplusplus
}
#endif
#endif
