// The calls that a program makes, the folders that they start from, and what the next scan finds.
#ifndef VAKRO_TESTS_CALLS_H
#define VAKRO_TESTS_CALLS_H

#include "tests/support/world.h"

using Files = std::map<std::string, std::string>;  // name -> content

struct Call {
  std::string what;
  std::function<int(Device*)> run;
  bool changes = false;                    // a result of 1 means new content
  int failure = 0;                         // a documented failure besides 0
  Files start = {};                        // the folder; the record is what a scan of it finds
  std::function<void()> before = nullptr;  // what comes before the call, without faults
  // Made past the record, which does not follow; may report a failure when the file is written.
  bool beside = false;
  int stride = 1;  // of the short tests: one in so many is struck of the calls not on files
};

// A program of tests has one list: module_calls.cpp or pkcs11_calls.cpp.
std::vector<Call> AllCalls();
void ReleaseResults();  // what the last call has handed out

inline constexpr char NEW_PIN[] = "new PIN";

class CallsTest : public ModuleTest {
 public:
  // The result of the call, made under the hook. "Random" bytes are the same in every run, so that
  // every run of a call writes the same file.
  static int Run(const Call& call, Device* device, const decltype(Hook::ask)& hook = Fault{""});

 protected:
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
