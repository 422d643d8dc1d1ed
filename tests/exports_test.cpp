// The module's symbols.
#include "tests/support/world.h"

#include <dlfcn.h>

TEST(ExportsTest, EveryFunctionIsVisibleUnderItsName) {
  void* library = dlopen("libvakro_device.so", RTLD_NOW | RTLD_NOLOAD);
  ASSERT_NE(library, nullptr);
  const auto names = ReadRows("exported_functions.txt");
  EXPECT_EQ(names.size(), 134u);
  for (const std::string& name : names) {
    Dl_info info = {};
    ASSERT_NE(dladdr(dlsym(library, name.c_str()), &info), 0) << name;
    EXPECT_NE(strstr(info.dli_fname, "libvakro_device.so"), nullptr) << name << info.dli_fname;
  }
  dlclose(library);
}
