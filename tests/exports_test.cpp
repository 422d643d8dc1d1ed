// The module's symbols and its C interface.
#include "tests/support/world.h"

#include <dlfcn.h>
#include <fstream>

extern "C" int InterfaceFromC(void);

TEST(ExportsTest, EveryFunctionIsVisibleUnderItsName) {
  void* library = dlopen("libvakro_device.so", RTLD_NOW | RTLD_NOLOAD);
  ASSERT_NE(library, nullptr);
  std::ifstream names(DataFile("exported_functions.txt"));
  int count = 0;
  for (std::string name; std::getline(names, name); count++) {
    Dl_info info = {};
    ASSERT_NE(dladdr(dlsym(library, name.c_str()), &info), 0) << name;
    EXPECT_NE(strstr(info.dli_fname, "libvakro_device.so"), nullptr) << name << info.dli_fname;
  }
  EXPECT_EQ(count, 134);
  dlclose(library);
}

TEST_F(ModuleTest, TheInterfaceServesC) { EXPECT_EQ(InterfaceFromC(), 1); }
