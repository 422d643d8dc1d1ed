// One device file in use: its current content, and a change of it from the locked read to the
// rewrite. For the rooms above, which put their own checks between the two.
//
// Nothing here takes the module lock; whoever changes a record holds it.
#ifndef VAKRO_STORE_CHANGE_H
#define VAKRO_STORE_CHANGE_H

#include "core/owners.h"
#include "store/lock.h"

#include <sys/stat.h>
#include <string_view>

// What a look at a file, or at something in it, says.
//   BAD      it is missing, damaged, or not what was looked for
//   UNKNOWN  a passing failure (memory, a descriptor, a read error, a lock): it may be good, and
//            nothing may take its place
enum class ReadResult { BAD = 0, GOOD = 1, UNKNOWN = -1 };

// A whole file in memory, and its owner, mode and times when it was opened.
struct FileImage {
  UtilBytes bytes;
  unsigned int size = 0;
  struct stat status = {};
};

// ReadImage reads and checks a device file as VerifyDeviceFile does, and tells a bad file from a
// failure to look. `image` is of use on GOOD only; else it tells whether the header fitted the size
// (its bytes are set) and what the file was like, if there is one (its status). Takes no lock: a
// file that is being rewritten is damaged.
ReadResult ReadImage(const char* path, FileImage* image);

// ImageText is the text of an image whose length word has been checked.
std::string_view ImageText(const unsigned char* image);

// LoadImage builds the device record of a checked image as GetDeviceHandleFromData does, and tells
// an image that is no device from exhausted memory. On GOOD *out is set.
ReadResult LoadImage(const unsigned char* image, Device** out);

// --- The current content (current.cpp) -----------------------------------------------------------

// ReadDeviceImage is ReadImage, and the image must load as a device.
ReadResult ReadDeviceImage(const char* path, FileImage* image);

// ReadCurrent reads the device file. One that is missing or damaged is restored from its backup,
// under the lock; while another process holds that, or where this one may not write, the backup's
// content is handed out and nothing touched.
//   read         ReadImage or ReadDeviceImage: what a good file is
//   mustRestore  a backup that can't take the file's place is a failure
ReadResult ReadCurrent(const char* path, const char* backupPath, bool mustRestore,
                       ReadResult (*read)(const char*, FileImage*), FileImage* image);

// RemoveStaleBackup removes the backup of a device file that is good and on stable storage, unless
// another process has the file in hand.
void RemoveStaleBackup(const char* path, const char* backupPath);

// --- A change (rewrite.cpp) ----------------------------------------------------------------------

enum class Reading {
  UNCHECKED,  // the length word must fit, the digest is not looked at
  CHECKED,    // container and digest
  RESTORED,   // as ReadCurrent: a backup takes the place of a missing or damaged file
};

// What a change has read. It stays where it was made: the lock is in it.
struct FileChange {
  FileLock lock;
  FileImage image;
  Json root;  // the text, decoded; NULL when it is not JSON
};

// BeginFileChange locks the device's file, reads and decodes it, once. GOOD also for a text that is
// not JSON. The device's fileTag stays as it is: its keys are bound to it.
ReadResult BeginFileChange(const Device* device, Reading reading, FileChange* change);

// RewriteFile is the backed-up rewrite: encodes `tree` and replaces the file's content with it; the
// change is over then, whatever the result. Refuses to give up a valid backup for a device file
// that is not.
int RewriteFile(FileChange* change, Device* device, Json tree);

// StoredKeypairs is the keypairs array of a change's tree, borrowed; NULL when the text is no
// device. The functions below want one.
VakroJson* StoredKeypairs(const FileChange& change);

// --- Keypairs and certificates (records.cpp) -----------------------------------------------------
// What the functions of store.h do to the file, on a change that is under way.

int AddKeypairToChange(FileChange* change, Device* device, const Keypair* keypair);
int AddCertToChange(FileChange* change, Keypair* keypair, const Cert* cert);
int DeleteCertFromChange(FileChange* change, Keypair* keypair, const Cert* cert);

// DeleteKeypairFromChange removes every item of this keypair, under whatever PIN it stands by now.
// Refuses a file with a data-object item.
int DeleteKeypairFromChange(FileChange* change, Keypair* keypair);

// WriteRecord writes the whole record as UpdateDeviceDataToFile does (whole_record.cpp).
int WriteRecord(FileChange* change, Device* device);

// MakeRecordImage makes the whole file of a record that has none yet (whole_record.cpp); NULL on
// failure.
UtilBytes MakeRecordImage(const Device* device, unsigned int* size);

// --- What file and record know of each other (differences.cpp) -----------------------------------

// BeginCheckedChange begins a change of a device file that is good and holds a device.
bool BeginCheckedChange(const Device* device, FileChange* change);

bool HoldsKeypair(const FileChange& change, unsigned int type, const char* label);
int CountKeypairs(const FileChange& change);  // as many as the reader would load

// HoldsSameKeypairs is false when the file has a keypair more or fewer than the record, or one
// under another PIN. One that the reader has passed over is one more.
bool HoldsSameKeypairs(const FileChange& change, const Device* device);

// NoteWritten makes the record remember whether it could be written over this file. If not, the
// file's keypairs are known to it although they are no longer the same.
void NoteWritten(const FileChange& change, Device* device, bool isWritten);

// Whether the PIN of a verified record opens the file's keypairs.
enum class FilePin {
  OURS,
  ANOTHERS,  // a keypair of the record is enciphered otherwise
  UNTOLD,    // the file holds keypairs, none of them the record's
};
FilePin WhosePin(const FileChange& change, const Device* device);
OwnedKeypair LoadFirstKeypair(const FileChange& change);  // of the file; NULL without one or memory

struct CertList {
  Cert* certs[MAX_CERTS] = {};  // FreeCert
  int count = 0;
  CertList() = default;
  CertList(const CertList&) = delete;
  CertList& operator=(const CertList&) = delete;
  ~CertList();
};

// ReadStoredCerts reads the keypair's certificates from the file and says whether they are others
// than those of the record; a keypair that the file does not hold has no others. False when memory
// is out.
bool ReadStoredCerts(const FileChange& change, const Keypair* keypair, CertList* list,
                     bool* areOthers);

void ExchangeCerts(Keypair* keypair, CertList* list);
bool IsSameCert(const Cert* a, const Cert* b);

// --- A record that is edited (edit.cpp) ----------------------------------------------------------

// What a change's tree was loaded as: the record, its keypairs, and where in the file they stand.
struct EditedRecord {
  Device* device = nullptr;  // the caller's
  Keypair* keypairs[MAX_KEYPAIRS] = {};
  int positions[MAX_KEYPAIRS] = {};
  int count = 0;
};

// LoadRecord makes a fresh record of a change's tree, its paths not set.
ReadResult LoadRecord(const FileChange& change, EditedRecord* edited);

// WriteEdited writes names and keypairs of the record, as they are by now, over those that were
// loaded, and `datas`, unless it is NULL, over the data objects; all else of the file stays. The
// change is over then. Refuses keypairs that were enciphered anew beside one that was passed over:
// that would stay under the old PIN.
int WriteEdited(FileChange* change, const EditedRecord& edited, const VakroJson* datas);

// --- Data objects (datas.cpp) --------------------------------------------------------------------

// ReadStoredTree is GetDeviceDataFromFile and the decoder. The tree is an array; NULL on any
// failure.
Json ReadStoredTree(Device* device);

// BeginDataChange begins a change and takes the device's fileTag from the file. ReadDatas and
// WriteDatas are its two halves; of GetAllDatasFromFile and WriteAllDatasToFile each reads anew.
bool BeginDataChange(Device* device, FileChange* change);
bool ReadDatas(const Json& root, Data*** list, unsigned int* count);
bool WriteDatas(FileChange* change, Device* device, Data** list, unsigned int count);

// HasRoomForData says whether an object of `length` bytes may fit into the largest possible file.
bool HasRoomForData(const FileChange& change, int length);

// --- Files (file.cpp) ----------------------------------------------------------------------------

// SyncFolder puts the file's name on stable storage. A folder that can't be read, and a file system
// that does not sync folders, are let pass: nothing more can be done.
bool SyncFolder(const char* path);

// WriteNewFile writes an image to a file that does not exist yet, its owner's alone, bytes and name
// on stable storage. It has its name when it is complete, where the file system knows files without
// names. Returns 1; -6 when there is one; -1, and nothing is left.
int WriteNewFile(const char* path, const FileImage& image);

// SyncFile puts bytes and name of a file on stable storage that another process may have left
// unsynced: one that reads well need not be on the disk yet.
bool SyncFile(const char* path);

#endif
