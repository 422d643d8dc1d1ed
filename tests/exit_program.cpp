// Ends as programs do end that load the module at run time: exit_program LIBRARY WAY. Every way
// must come to an end with exit status 0; the tests are registered in CMakeLists.txt.
#include "vakro_device.h"

#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <thread>

static void* g_library;
static Keypair *g_keypair, *g_rsa;

static void Must(bool good, const char* what) {
  if (good) return;
  fprintf(stderr, "%s failed\n", what);
  _Exit(1);
}

template <class Function>
static Function* Find(const char* name) {
  void* found = dlsym(g_library, name);
  Must(found != nullptr, name);
  return reinterpret_cast<Function*>(found);
}
#define CALL(name) Find<decltype(name)>(#name)

static void End() {
  Must(CALL(DeviceFreeKeypair)(g_keypair) == 1 && CALL(DeviceFreeKeypair)(g_rsa) == 1, "free");
  Must(CALL(DeviceEnd)() == 1, "DeviceEnd");
}

static void Load(const char* path) {
  g_library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  Must(g_library != nullptr, "dlopen");
}

static void Start() { Must(CALL(DeviceInit)() == 1, "DeviceInit"); }

// A temporary keypair asks nothing of its device.
static void Use() {
  static char device;
  static const ECCKeypairParams sm2 = {CURVE_SM2, 1};
  static const RSAKeypairParams rsa = {nullptr, 0, 1};
  unsigned char digest[32] = {}, signature[80];
  int length = 0;
  CALL(DeviceFreeDevices)(CALL(DeviceGetAllDevices)());
  Must(CALL(DeviceGenerateKeypair)(reinterpret_cast<Device*>(&device), ALGORITHM_ECC, 256, &sm2, 1,
                                   nullptr, &g_keypair) == 1 &&
           CALL(DeviceGenerateKeypair)(reinterpret_cast<Device*>(&device), ALGORITHM_RSA, 1024,
                                       &rsa, 1, nullptr, &g_rsa) == 1,
       "DeviceGenerateKeypair");
  Must(CALL(DeviceSign)(g_keypair, ALGORITHM_SM2_SIGN, nullptr, digest, sizeof(digest), signature,
                        sizeof(signature), &length) == 1,
       "DeviceSign");
}

int main(int argc, char** argv) {
  Must(argc == 3, "usage");
  const auto way = [&](const char* name) { return strcmp(argv[2], name) == 0; };
  const bool reload = way("reload"), early = way("early_handler");
  if (early) atexit(End);  // runs after OpenSSL's own
  for (int times = reload ? 5 : 1; times > 0; times--) {
    Load(argv[1]);
    Start();
    if (way("late_handler")) atexit(End);
    if (way("thread")) {
      std::thread(Use).join();
    } else {
      Use();
    }
    if (!reload) continue;
    End();
    Must(dlclose(g_library) == 0, "dlclose");
  }
  if (way("unload")) dlclose(g_library);  // still started, its handle still held
  return 0;
}
