// What is wrong with a device file, in words.
#ifndef VAKRO_TOOLS_INSPECTION_H
#define VAKRO_TOOLS_INSPECTION_H

#include "tools/files.h"

#include <string>
#include <vector>

// How much a finding weighs.
enum class Weight { NOTE, WEAK, SKIPPED, REFUSED };
const char* WeightName(Weight weight);

struct Finding {
  Weight weight;
  std::string where;  // "keypair 2 (sign)", or "" for the file as a whole
  std::string what;
};
using Findings = std::vector<Finding>;

// What the file at a path holds, as far as it goes.
struct Inspection {
  bool loads = false;  // a scan makes a device of it
  bool digestHolds = false;
  Findings findings;
};

// Inspect looks at the content alone. Fails when there is no such file; one that can't be read is
// told in a finding.
Inspection Inspect(const std::string& path);

// IsDeviceFile says whether container and digest of a file are right.
bool IsDeviceFile(const std::string& path);

// ReasonOf is the heaviest finding in one line; "" when there is none.
std::string ReasonOf(const Inspection& inspection);

// PassedOverKeypairs lists the findings about keypairs that a device has in its file but that the
// reader leaves out.
Findings PassedOverKeypairs(const std::string& path);

#endif
