// The calls that a program makes, the folders that they start from, and what the next scan finds.
#ifndef VAKRO_TESTS_CALLS_H
#define VAKRO_TESTS_CALLS_H

#include "tests/support/world.h"

using Files = std::map<std::string, std::string>;  // name -> content

struct Call {
  std::string what;
  std::function<int(Device*)> run;
  bool changes = false;  // a result of 1 means new content
  int failure = 0;       // a documented failure besides 0
  Files start = {};      // the folder; the record is what a scan of it finds
};
std::vector<Call> AllCalls();

class CallsTest : public ModuleTest {
 protected:
  // The result of the call, made under the hook. "Random" bytes are the same in every run, so that
  // every run of a call writes the same file.
  static int Run(const Call& call, Device* device, const decltype(Hook::ask)& hook = Fault{""});

  static pid_t Fork(const std::function<void()>& body);
  static int WaitFor(pid_t child);  // its signal; 0 for one that has ended without failures

  void Put(const Files& files) const;  // the folder holds exactly these
  Files Get() const;
  DeviceHandle Prepare(const Call& call) const {  // its record, verified
    Put(call.start);
    return Rescan(PIN);
  }
  bool AreFilesFree() const;  // neither the device file nor its backup is locked

  // The bytes of the device that a scan finds in a folder of these files. It is the only one, opens
  // with a PIN of the calls, nothing lies beside it afterwards, and the next scan finds the same.
  const std::string& Found(const Files& files);

  std::map<Files, std::string> found_;
};

#endif
