// The world of the benchmarks: the started module, keys, and folders full of devices, made by the
// module itself but for the first, empty device file and the certificates.
#ifndef VAKRO_BENCH_WORLD_H
#define VAKRO_BENCH_WORLD_H

#include "device/device.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

inline constexpr char BENCH_PIN[] = "a good PIN";
inline constexpr size_t CERT_SIZE = 1024;

// Starts the module and replaces both folders by fresh ones inside them; at the end removes these
// and stops the module.
class World {
 public:
  World(std::string* disk, std::string* memory);
  World(const World&) = delete;
  World& operator=(const World&) = delete;
  ~World();

 private:
  std::vector<std::string> folders_;
};

std::string FileSystemOf(const std::string& folder);
std::string NewFolder(const std::string& parent);  // with a trailing slash
std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& content);

// A temporary keypair and its public key. Asked for again, the same handles come back.
struct Key {
  std::shared_ptr<Keypair> pair;
  std::shared_ptr<PublicKey> pub;
};
Key RsaKeyOf(int bits);
Key EccKeyOf(int curve);
std::string KeypairEncoding(const Key& key);  // as DeviceImportKeypair takes it

// GenerateTemporary makes a temporary keypair through the interface; `size` is the bits of an RSA
// key or a curve.
std::shared_ptr<Keypair> GenerateTemporary(unsigned int algorithm, int size);

// While one lives, OpenSSL's random numbers are one fixed sequence: a search for primes then costs
// every contender the same.
class SameRandom {
 public:
  SameRandom();
  SameRandom(const SameRandom&) = delete;
  SameRandom& operator=(const SameRandom&) = delete;
  ~SameRandom();
};

// NewDeviceFolder makes a folder with `devices` device files alike: `keypairs` keypairs (P-256,
// SM2 and RSA-2048 in turn) and `certs(i)` certificates on keypair i.
using CertCount = std::function<int(int keypair)>;
std::string NewDeviceFolder(const std::string& parent, int devices, int keypairs,
                            const CertCount& certs);

using DeviceHandle = std::shared_ptr<Device>;
using SetHandle = std::shared_ptr<DeviceSet>;
void UseFolder(const std::string& folder);                            // scans look here from now on
DeviceHandle LoadDevice(const std::string& folder, const char* pin);  // NULL pin: not verified

// The start-up row runs this program again, with this argument alone.
inline constexpr char START_UP_ARGUMENT[] = "--start-up";
int RunStartUp();

#endif
