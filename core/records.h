// The records of the module, their limits and owners, and the byte order of stored words.
//
// NULL where a value is required is the caller's fault unless the comment says otherwise; memory
// comes from vakro_malloc. "Caller locks" means that the caller holds the module lock.
#ifndef VAKRO_CORE_RECORDS_H
#define VAKRO_CORE_RECORDS_H

#include "vakro_device.h"

#include <atomic>

typedef struct evp_pkey_st EVP_PKEY;  // OpenSSL's

inline constexpr int MAX_DEVICES = 64;   // in one set
inline constexpr int MAX_KEYPAIRS = 64;  // on one device
inline constexpr int MAX_CERTS = 10;     // on one keypair
inline constexpr int NAME_SIZE = 64;     // serial numbers and labels, their NUL included
inline constexpr char BACKUP_SUFFIX[] = ".bak";

struct Cert {
  unsigned char* data;  // vakro_free; the bytes as they were added
  int length;
};

// What SM2 signing takes of a private key d, kept from the first signature on. It says whose it is,
// so that it is never used for another key. All zeros: nothing is kept.
struct SigningFactor {
  unsigned char scalar[32];   // d mod n, big-endian
  unsigned char inverse[32];  // (1 + d)^-1 mod n
};

struct Keypair {
  char label[NAME_SIZE];
  unsigned int type;
  unsigned int algorithm;  // ALGORITHM_RSA or ALGORITHM_ECC
  unsigned int bits;
  // Elliptic curve only: the VakroCurve once the private key is known, 0 before. -1, for any
  // keypair, after a failed PIN verification has discarded its key. Not stored. A shared field that
  // changes under the key lock, together with privateKey.
  int curve;
  unsigned char* publicKey;  // VakroPKICryptoFreeMemory; the crypto library's encoding
  int publicKeyLen;
  unsigned char* salt;  // vakro_free; of the key derivation
  int saltLen;
  unsigned char* iv;  // vakro_free; second part of the nonce
  int ivLen;
  unsigned char* encryptedPrivateKey;  // vakro_free
  int encryptedPrivateKeyLen;
  EVP_PKEY* privateKey;  // EVP_PKEY_free; NULL until the PIN is verified, or the key made here;
                         // changes under the module lock and the key lock
  int certCount;
  int maxCerts;                 // MAX_CERTS in what is stored; checks ask the constant itself
  Cert* certs[MAX_CERTS];       // FreeCert; in file order
  int isTemp;                   // 1: belongs to no device and is not stored
  Device* device;               // borrowed; NULL for a temporary keypair and for one deleted
  SigningFactor signingFactor;  // under the key lock
};

// References. refCount = keypairCount + the references held outside: the set's, one for each
// device handle and one for each keypair handle. The release that brings it down to keypairCount
// frees the device with all its keypairs. A new keypair adds 2 (its place and the caller's
// handle), a deletion takes 2 away. Changed by the functions of references.cpp.
//
// No two keypairs of a device have the same type and label; each has isTemp 0 and points back.
struct Device {
  char serialNumber[NAME_SIZE];
  char label[NAME_SIZE];
  // vakro_free, after wiping; NULL while the device is not verified, else a PIN under which every
  // private key was decrypted.
  char* pin;
  int keypairCount;                 // a shared field
  int maxKeypairs;                  // MAX_KEYPAIRS
  Keypair* keypairs[MAX_KEYPAIRS];  // FreeKeypair; in file order, packed
  unsigned int refCount;
  // First word of the device file; refreshed when the file's text is read, written back by every
  // rewrite, and bound into each private key's associated data.
  unsigned int fileTag;
  // After a change of the PIN that could not be written: the digest of the file, which still holds
  // the keys under the old PIN, so that the change can be made again. Zeros else.
  unsigned char unwrittenOver[64];
  char* filePath;    // vakro_free
  char* backupPath;  // vakro_free; filePath and BACKUP_SUFFIX
};

struct DeviceSet {
  Device* devices[MAX_DEVICES];  // one reference each; NULL from `count` on
  int count;
};

struct Data {
  int id;         // 1 or more, unique on the device
  int length;     // bytes of `value`, fixed at creation
  int reserved1;  // 0 at creation; kept as stored
  int reserved2;
  unsigned char* value;  // VakroPKICryptoFreeMemory
};

struct PublicKey {
  int algorithm;
  int bits;
  int curve;                 // 0 for RSA
  unsigned char* publicKey;  // vakro_free; the crypto library's encoding
  int publicKeyLen;
  EVP_PKEY* key;  // EVP_PKEY_free
};

// A shared field is changed under the module lock but read without it too. These two keep such
// reads and changes from tearing; whoever holds the lock may read the field plainly.
inline int ReadShared(int& field) { return std::atomic_ref(field).load(std::memory_order_relaxed); }
inline void WriteShared(int& field, int value) {
  std::atomic_ref(field).store(value, std::memory_order_relaxed);
}

extern "C" {

// --- Records (records.cpp): New… returns NULL when memory is out, Free… ignores NULL -------------

DeviceSet* NewDeviceSet(void);
void FreeDeviceSet(DeviceSet* set);  // frees its devices too, whatever their references
Device* NewDevice(void);             // zero-filled, but refCount 1 and maxKeypairs
void FreeDevice(Device* device);     // with its keypairs, whatever its references
char* CopyPin(const char* pin);      // for the record to keep: kept from swap and core dumps
void FreePin(Device* device);        // wipes the copy of the PIN; the device is unverified then
Keypair* NewKeypair(void);           // zero-filled

// SetPrivateKey gives the keypair another private key, or NULL, and the curve that belongs to it;
// it takes over `key`, and frees and wipes what there was of the one before. Takes the key lock;
// caller locks.
void SetPrivateKey(Keypair* keypair, EVP_PKEY* key, int curve);
void FreeKeypair(Keypair* keypair);
Cert* NewCert(const unsigned char* bytes, int length);  // copies the bytes
void FreeCert(Cert* cert);
Data* newData(int id, int length);  // `length` zero bytes
void FreeData(Data* data);          // clears the value and the record first
void FreeDatas(Data** array, int count);

// removeData frees the record at `index` and moves the later ones down by one; the array then
// holds one record fewer. An index outside the array changes nothing.
void removeData(Data** array, int count, int index);

// FreeTempKeypair frees the records in an array of MAX_KEYPAIRS slots and empties it. Of each it
// releases salt, iv and encryptedPrivateKey only: such a record borrows its private key.
void FreeTempKeypair(Keypair** array);

// be2int reads and int2be writes a 32-bit word, most significant byte first.
unsigned int be2int(const unsigned char* bytes);
void int2be(unsigned int value, unsigned char* bytes);

// --- References (references.cpp) -----------------------------------------------------------------

// AddReferences takes `count` references on the device, which somebody else holds already. Caller
// locks.
void AddReferences(Device* device, unsigned int count);

// ReleaseReferences gives back `count` references and frees the device with the last one from
// outside. Caller locks.
void ReleaseReferences(Device* device, unsigned int count);

// LowerReferences gives back one reference where the lock can't be had: the count is right, but a
// device whose last reference this was is not freed.
void LowerReferences(Device* device);

}  // extern "C"
#endif
