// The calls that a program makes, the folders that they start from, and what the next scan finds.
#ifndef VAKRO_TESTS_CALLS_H
#define VAKRO_TESTS_CALLS_H

#include "tests/support/world.h"

#include <sys/mman.h>
#include <functional>
#include <set>

using Files = std::map<std::string, std::string>;  // name -> content

struct Call {
  std::string what;
  std::function<int(Device*)> run;
  bool changes = false;     // a result of 1 means new content
  const char* pin = PIN;    // that opens the device afterwards
  int failure = 0;          // a documented failure besides 0
  std::string record = {};  // the device file that the record was loaded from
  Files start = {};         // the folder
};
std::vector<Call> AllCalls();
bool IsFolderFree(const std::string& folder);  // of its lock

// Memory that stays shared with forked children; zero at first, never given back.
template <class T>
T* Shared() {
  constexpr int READ_WRITE = PROT_READ | PROT_WRITE;
  return new (mmap(nullptr, sizeof(T), READ_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) T();
}

// "Random" bytes are the same in every run, so that every run of a call writes the same file.
class CallsTest : public ModuleTest {
 protected:
  static int Run(const Call& call, Device* device, int (*hook)(const ImportCall&) = nullptr);

  void Put(const Files& files) const;  // the folder holds exactly these
  Files Get() const;
  DeviceHandle Prepare(const Call& call);  // its record, verified; its start is put

  // What a scan of the folder finds: the bytes of "dev", if that is the one device and if nothing
  // lies beside it afterwards.
  std::string Scan() const;
  std::string Scan(const Files& files) const;  // puts them first; a second scan finds the same
  bool Opens(const std::string& found, const char* pin);  // the device that Scan has just found

 private:
  std::set<std::string> opened_;
};

#endif
