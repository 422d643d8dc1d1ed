#include "tests/support/calls.h"

#include <fcntl.h>
#include <filesystem>

int CallsTest::Run(const Call& call, Device* device, const decltype(Hook::ask)& hook) {
  FixRandom();
  if (call.before) call.before();
  const int result = [&] {
    const Hook hooked{hook};
    return call.run(device);
  }();
  ReleaseResults();
  return result;
}

void CallsTest::Put(const Files& files) const {
  for (const auto& entry : std::filesystem::directory_iterator(folder_)) remove(entry.path());
  for (const auto& [name, content] : files) Write(name, content, 0640);
}

Files CallsTest::Get() const {
  Files files;
  for (const auto& [name, entry] : List()) {
    EXPECT_TRUE(entry.starts_with("33184") || entry.starts_with("33152")) << "0640 or 0600";
    files[name] = entry.substr(5);
  }
  return files;
}

bool CallsTest::AreFilesFree() const {
  for (const char* name : {"dev", "dev.bak"}) {
    const Descriptor file(open(Path(name).c_str(), O_RDWR));
    struct flock whole = {};
    whole.l_type = F_WRLCK;
    if (file.fd >= 0 && fcntl(file.fd, F_OFD_SETLK, &whole) != 0) return false;
  }
  return true;
}

const std::string& CallsTest::Found(const Files& files) {
  const auto [found, isNew] = found_.try_emplace(files);
  if (!isNew) return found->second;
  Put(files);
  const DeviceHandle device = Rescan();
  if (!device) return found->second;
  EXPECT_TRUE(device->filePath == Path("dev") && device->backupPath == Path("dev.bak"));
  EXPECT_TRUE(DeviceVerifyPwd(device.get(), 1, PIN, nullptr) == 1 ||
              DeviceVerifyPwd(device.get(), 1, NEW_PIN, nullptr) == 1);
  const Files left = Get();
  EXPECT_EQ(left.size(), 1u);
  EXPECT_TRUE(Rescan() && Get() == left) << "the second scan";
  return found->second = left.begin()->second;
}
