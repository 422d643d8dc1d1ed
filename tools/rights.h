// Who else may change or read a key folder and the files in it.
#ifndef VAKRO_TOOLS_RIGHTS_H
#define VAKRO_TOOLS_RIGHTS_H

#include <string>

// What others may do that they should not, and the command that ends it. Both are "" where all is
// well; the remedy also where there is no such command.
struct Exposure {
  std::string what;
  std::string remedy;
};

// The mode decides. Where a file has an ACL, the group's part of its mode is the most that any
// entry of the list grants: nothing is overlooked, and chmod closes it all the same.
Exposure WhoMayWrite(const std::string& path);
Exposure WhoMayRead(const std::string& path);  // a file; a folder may be read

// WhoMayMove looks at the folders above `path`, links followed: who may write one of them may put
// something else in the place of what is below. Folders like /tmp, which let only owners rename,
// are fine, and so is a group of which the user is the only member, unless there is an ACL.
Exposure WhoMayMove(const std::string& path);

// RefuseOpen fails where others may write the folder or the file at `path`, unless --unsafe;
// `looking`, for a command that only looks, warns instead. Remarks where others may read a file.
void RefuseOpen(const std::string& path, bool looking);

// RefuseMovable is the same for what WhoMayMove finds.
void RefuseMovable(const std::string& path, bool looking);

#endif
