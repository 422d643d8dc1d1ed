// Ends as programs do end that load the module at run time: exit_program LIBRARY WAY. Every way
// must come to an end with exit status 0; the tests are registered in CMakeLists.txt.
#include "vakro_device.h"

#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>
#include <fstream>
#include <string>
#include <thread>

// The program has a function of its own by a name of the module, for every library to see.
extern "C" int DeviceLockDevice(Device* /*device*/) { abort(); }

static void* g_library;
static Keypair *g_keypair, *g_rsa;

// Calls a function of the module that must give 1.
template <class... Args>
static void Must(const char* name, Args... args) {
  const auto function = reinterpret_cast<int (*)(Args...)>(dlsym(g_library, name));
  if (function != nullptr && function(args...) == 1) return;
  fprintf(stderr, "%s failed\n", name);
  _Exit(1);
}

static void End() {
  Must("DeviceFreeKeypair", g_keypair);
  Must("DeviceFreeKeypair", g_rsa);
  Must("DeviceEnd");
}

// A temporary keypair asks nothing of its device.
static void Use() {
  static char device;
  static const ECCKeypairParams sm2 = {CURVE_SM2, 1};
  static const RSAKeypairParams rsa = {nullptr, 0, 1};
  static unsigned char digest[32], signature[80];
  const char* const label = nullptr;
  const void* const none = nullptr;
  int length = 0;
  Must("DeviceGenerateKeypair", &device, ALGORITHM_ECC, 256, &sm2, 1, label, &g_keypair);
  Must("DeviceGenerateKeypair", &device, ALGORITHM_RSA, 1024, &rsa, 1, label, &g_rsa);
  Must("DeviceSign", g_keypair, ALGORITHM_SM2_SIGN, none, digest, 32, signature, 80, &length);
}

// Whether nothing is left of the three libraries, nor any of their handlers.
static bool IsGone() {
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);)
    if (line.find("libvakro_") != std::string::npos) return false;
  const pid_t child = fork();
  if (child == 0) _Exit(0);
  int status = -1;
  return waitpid(child, &status, 0) == child && status == 0;
}

int main(int /*argc*/, char** argv) {
  const std::string way = argv[2];
  if (way == "early_handler") atexit(End);  // runs after OpenSSL's own
  for (int times = way == "reload" ? 5 : 1; times > 0; times--) {
    g_library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (g_library == nullptr) return 1;
    Must("DeviceInit");
    if (way == "late_handler") atexit(End);
    way == "thread" ? std::thread(Use).join() : Use();
    if (way == "reload") End();
    // "unload": still started, its handles still held.
    if (way.ends_with("load") && (dlclose(g_library) != 0 || !IsGone())) return 1;
  }
  return 0;
}
