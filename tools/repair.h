// Repairs of a device file that lose nothing, and the copies that are made first.
#ifndef VAKRO_TOOLS_REPAIR_H
#define VAKRO_TOOLS_REPAIR_H

#include <string>

// KeepCopy copies a file of the key folder, whatever is in it, to a new file in the folder of the
// same name with ".kept" behind it, and returns its path.
std::string KeepCopy(const std::string& path);

// Repair does what is safe with one file and says what it did: closes it to others; mends a length
// word, or cuts off what stands behind the end, where the digest proves the text whole; puts a good
// backup in the place of a damaged device file.
void Repair(const std::string& path);

#endif
