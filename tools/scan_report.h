// What a scan of the key folder does besides loading: said instead of done in silence.
#ifndef VAKRO_TOOLS_SCAN_REPORT_H
#define VAKRO_TOOLS_SCAN_REPORT_H

#include <string>
#include <vector>

// A backup that lay in the folder before the scan. One that a running change uses is left out.
struct Backup {
  std::string path;  // of the device file
  bool wasNeeded;    // the device file was missing or damaged
};
using Backups = std::vector<Backup>;

Backups BackupsIn(const std::string& folder);

// SayWhatWasMended warns of each backup that is gone by now: put back, or removed as stale.
void SayWhatWasMended(const Backups& before);

#endif
