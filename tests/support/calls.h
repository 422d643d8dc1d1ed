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
  Files start;
  std::string record;  // the device file that the record was loaded from
  std::function<int(Device*)> run;
  bool changes = false;   // a result of 1 means new content
  const char* pin = PIN;  // that opens the device afterwards
  int failure = 0;        // a documented failure besides 0
};
std::vector<Call> AllCalls();
void GiveBack();  // the handles that the last call has handed out
bool LongTests();

// Memory that stays shared with forked children; zero at first, never given back.
template <class T>
T* Shared() {
  void* memory =
      mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return new (memory) T();
}

// "Random" bytes are the same in every run, so that every run of a call writes the same file.
class CallsTest : public ModuleTest {
 protected:
  void SetUp() override;
  void TearDown() override;
  static int Run(const Call& call, Device* device);

  void Put(const Files& files) const;  // the folder holds exactly these
  Files Get() const;
  DeviceHandle Prepare(const Call& call);  // its record, verified; its start is put

  // Scan tells all that a scan of the folder finds: one device of the name "dev", decoded, and its
  // data objects; or what else it is. Afterwards nothing lies beside the device file.
  std::string Scan() const;
  std::string Scan(const Files& files) const;  // puts them first; a second scan finds the same
  bool Opens(const std::string& found, const char* pin);  // the device that Scan has just told

 private:
  std::set<std::string> opened_;
};

#endif
