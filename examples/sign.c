// Signs a file with a keypair of a device, by SM2 or ECDSA, and writes the signature.
//   sign FOLDER LABEL FILE SIGNATURE      the PIN is read from standard input
//   cc sign.c -o sign $(pkg-config --cflags --libs vakro libcrypto)
#include <vakro_device.h>

#include <openssl/evp.h>

#include <stdio.h>
#include <string.h>

enum { FIELD_SIZE = 32, CURVE_AT = 12, X_AT = 20, Y_AT = 56, ENCODING_SIZE = 88 };

// What the signer's public key is hashed with (GB/T 32918.2, 5.5): the length of the identity in
// bits, the identity, and a, b, xG, yG of the curve (GB/T 32918.5).
static const unsigned char SM2_PREFIX[] =
    "\x00\x80"
    "1234567812345678"
    "\xFF\xFF\xFF\xFE\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"
    "\xFF\xFF\xFF\xFF\x00\x00\x00\x00\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFC"
    "\x28\xE9\xFA\x9E\x9D\x9F\x5E\x34\x4D\x5A\x9E\x4B\xCF\x65\x09\xA7"
    "\xF3\x97\x89\xF5\x15\xAB\x8F\x92\xDD\xBC\xBD\x41\x4D\x94\x0E\x93"
    "\x32\xC4\xAE\x2C\x1F\x19\x81\x19\x5F\x99\x04\x46\x6A\x39\xC9\x94"
    "\x8F\xE3\x0B\xBF\xF2\x66\x0B\xE1\x71\x5A\x45\x89\x33\x4C\x74\xC7"
    "\xBC\x37\x36\xA2\xF4\xF6\x77\x9C\x59\xBD\xCE\xE3\x6B\x69\x21\x53"
    "\xD0\xA9\x87\x7C\xC6\x2A\x47\x40\x02\xDF\x32\xE5\x21\x39\xF0\xA0";

// HashFile writes the 32 bytes to be signed, and the algorithm to sign them with.
static int HashFile(Keypair* keypair, FILE* file, unsigned char* digest, unsigned int* algorithm) {
  unsigned char encoding[ENCODING_SIZE];
  int length = 0;
  PublicKey* key = DeviceGetPublicKeyFromKeypair(keypair);
  const int exported = DeviceExportPublicKey(key, encoding, sizeof encoding, &length);
  DeviceFreePublicKey(key);
  if (exported != VAKRO_OK || length != ENCODING_SIZE) return 0;  // RSA, or another curve
  const int sm2 = encoding[CURVE_AT + 3] == CURVE_SM2;
  *algorithm = sm2 ? ALGORITHM_SM2_SIGN : ALGORITHM_ECDSA_SIGN;

  EVP_MD_CTX* hash = EVP_MD_CTX_new();
  int fine = hash != NULL;
  if (sm2) {  // e = SM3(Z, file), where Z hashes identity, curve and public key
    fine = fine && EVP_DigestInit_ex(hash, EVP_sm3(), NULL) &&
           EVP_DigestUpdate(hash, SM2_PREFIX, sizeof SM2_PREFIX - 1) &&
           EVP_DigestUpdate(hash, encoding + X_AT, FIELD_SIZE) &&
           EVP_DigestUpdate(hash, encoding + Y_AT, FIELD_SIZE) &&
           EVP_DigestFinal_ex(hash, digest, NULL) && EVP_DigestInit_ex(hash, EVP_sm3(), NULL) &&
           EVP_DigestUpdate(hash, digest, FIELD_SIZE);
  } else {
    fine = fine && EVP_DigestInit_ex(hash, EVP_sha256(), NULL);
  }
  unsigned char part[4096];
  size_t count;
  while (fine && (count = fread(part, 1, sizeof part, file)) > 0) {
    fine = EVP_DigestUpdate(hash, part, count);
  }
  fine = fine && !ferror(file) && EVP_DigestFinal_ex(hash, digest, NULL);
  EVP_MD_CTX_free(hash);
  return fine;
}

// FindKeypair returns a handle to the first keypair of this label, and to its device; or NULL.
static Keypair* FindKeypair(DeviceSet* set, const char* label, Device** device) {
  for (int i = 0; i < DeviceGetDeviceCount(set); i++) {
    *device = DeviceGetDevice(set, (unsigned int)i);
    for (int j = 0; j < DeviceGetKeypairCount(*device); j++) {
      char name[64];
      int length = 0;
      Keypair* keypair = DeviceGetKeypair(*device, j);
      if (DeviceGetKeypairLabel(keypair, name, sizeof name, &length) == VAKRO_OK &&
          strcmp(name, label) == 0) {
        return keypair;
      }
      DeviceFreeKeypair(keypair);
    }
    DeviceFreeDevice(*device);
  }
  *device = NULL;
  return NULL;
}

static int Sign(const char* label, const char* pin, FILE* file, FILE* out) {
  unsigned char digest[FIELD_SIZE], signature[80];
  unsigned int algorithm = 0;
  int length = 0, result = VAKRO_FAILED;
  Device* device = NULL;
  DeviceSet* set = DeviceGetAllDevices();
  Keypair* keypair = FindKeypair(set, label, &device);
  if (keypair != NULL) result = DeviceVerifyPwd(device, PIN_TYPE_USER, pin, NULL);
  if (result == VAKRO_OK) result = HashFile(keypair, file, digest, &algorithm);
  if (result == VAKRO_OK) {
    result = DeviceSign(keypair, algorithm, NULL, digest, sizeof digest, signature,
                        sizeof signature, &length);
  }
  if (result == VAKRO_OK) {
    result = fwrite(signature, 1, (size_t)length, out) == (size_t)length ? VAKRO_OK : VAKRO_FAILED;
  }
  if (keypair != NULL) DeviceFreeKeypair(keypair);
  DeviceFreeDevice(device);
  DeviceFreeDevices(set);
  return result;
}

int main(int argc, char** argv) {
  char pin[256];
  if (argc != 5 || fgets(pin, sizeof pin, stdin) == NULL) return 2;
  pin[strcspn(pin, "\n")] = '\0';
  FILE* file = fopen(argv[3], "rb");
  FILE* out = fopen(argv[4], "wb");
  if (file == NULL || out == NULL) return 1;
  if (DeviceInit() != VAKRO_OK || DeviceSetKeyFolder(argv[1]) != VAKRO_OK) return 1;
  int result = Sign(argv[2], pin, file, out);
  DeviceEnd();
  fclose(file);
  if (fclose(out) != 0) result = VAKRO_FAILED;
  if (result != VAKRO_OK) fprintf(stderr, "not signed: %d\n", result);
  return result == VAKRO_OK ? 0 : 1;
}
