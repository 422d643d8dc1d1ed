// The operations that change a device file or mend it after a crash, the folders that they start
// from, and what the next scan finds.
#ifndef VAKRO_TESTS_WRITES_H
#define VAKRO_TESTS_WRITES_H

#include "tests/support/world.h"

#include <set>

using Files = std::map<std::string, std::string>;  // name -> content

struct WriteOperation {
  std::string what;
  Files start;
  std::string record;  // the device file that the record was loaded from
  int (*run)(Device*);
  bool changes;           // a result of 1 means new content
  const char* pin = PIN;  // that opens the device afterwards
};
std::vector<WriteOperation> WriteOperations();

// "Random" bytes are the same in every run, so that every run of an operation writes the same file.
class WritesTest : public ModuleTest {
 protected:
  void SetUp() override;
  void TearDown() override;
  static void RestartRandomness();

  void Put(const Files& files) const;  // the folder holds exactly these
  Files Get() const;
  DeviceHandle Prepare(const WriteOperation& operation);  // its record, verified; its start is put

  // Scan tells all that a scan of the folder finds: one device of the name "dev", decoded, and its
  // data objects; or what else it is. Afterwards nothing lies beside the device file.
  std::string Scan() const;
  std::string Scan(const Files& files) const;  // puts them first; a second scan finds the same
  bool Opens(const std::string& found, const char* pin);  // the device that Scan has just told

 private:
  std::set<std::string> opened_;
};

#endif
