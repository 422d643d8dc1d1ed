// The objects of a token and of sessions, as a look at the device's record gives them.
#ifndef VAKRO_PKCS11_OBJECT_H
#define VAKRO_PKCS11_OBJECT_H

#include "pkcs11/object_key.h"

inline constexpr size_t NAME_DIGEST_SIZE = 32;

// A stored mark, not an attribute: the object is not shown. In the vendor range.
inline constexpr CK_ATTRIBUTE_TYPE HIDDEN = CKA_VENDOR_DEFINED | 0x56414B00;

// What a client has set of an object: | type | length | bytes | each, words big-endian.
struct Attributes {
  Buffer stored;

  bool Find(CK_ATTRIBUTE_TYPE type, Span* value) const;
  bool Set(CK_ATTRIBUTE_TYPE type, Span value);  // in place of another of the type
  void Remove(CK_ATTRIBUTE_TYPE type);
  bool Has(CK_ATTRIBUTE_TYPE type) const { return Find(type, nullptr); }
  bool SetFlag(CK_ATTRIBUTE_TYPE type, bool value);
  bool Flag(CK_ATTRIBUTE_TYPE type, bool otherwise) const;
  static bool AreSound(Span stored);  // whether bytes from outside are a list of attributes
};

// Where an object is kept.
enum class Place {
  KEYPAIR,  // a keypair of the device, or its certificate list
  TABLE,    // the table in the anchor's certificate list alone
  DATA,     // a numbered data object
  SESSION,
};

struct Object {
  CK_OBJECT_HANDLE handle = CK_INVALID_HANDLE;
  CK_OBJECT_CLASS cls = CKO_DATA;
  Place place = Place::SESSION;
  CK_SESSION_HANDLE owner = 0;  // of a session object
  // What stays the same as long as the object exists, in every process.
  unsigned char name[NAME_DIGEST_SIZE] = {};
  Attributes set;

  ObjectKey* key = nullptr;      // held; of keys, and of a private data object: the anchor's
  char label[NAME_SIZE] = {};    // what the object is called where nothing is set
  Buffer certificate;            // of a certificate
  CertificateParts parsed = {};  // into `certificate`
  unsigned char keyId[20] = {};  // of a certificate: that of the key in it
  Keypair* keypair = nullptr;    // of a certificate: in whose list it stands; borrowed
  int number = 0;                // of a data object; 0 for an empty one without a number
  Buffer value;                  // of a data object, as it is stored

  Object() = default;
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;
  ~Object();

  bool IsToken() const { return place != Place::SESSION; }
  bool IsPrivate() const { return set.Flag(CKA_PRIVATE, cls == CKO_PRIVATE_KEY); }
  bool IsKey() const { return cls == CKO_PRIVATE_KEY || cls == CKO_PUBLIC_KEY; }
};

// All objects of one token, and what else its table holds. Owns the objects.
struct View {
  List<Object*> objects;
  ObjectKey* anchor = nullptr;  // held; NULL: there is none
  bool hasSoPin = false;        // the PIN is the security officer's; the user has none yet
  bool hasAllDatas = true;      // the data objects could be read
  bool isComplete = true;       // and all keys: where one could not, it may be for want of memory
  Buffer table;                 // as it is stored
  Buffer unclaimed;             // records in it that belong to nothing that is there

  View() = default;
  View(const View&) = delete;
  View& operator=(const View&) = delete;
  ~View();
  Object* Find(CK_OBJECT_HANDLE handle) const;
  bool Add(Object* object);     // takes it over, also on failure
  void Remove(Object* object);  // and deletes it
};

// --- Making single objects -----------------------------------------------------------------------

// The makers return NULL when memory is out; NewCertificateObject also for what is no certificate.
Object* NewKeyObject(CK_OBJECT_CLASS cls, ObjectKey* key);  // holds the key
Object* NewCertificateObject(Span certificate);
Object* NewDataObject(int number, Span value);

// AddToken puts a token object into the view under a name: from what it is, and how many like it
// come before. Takes it over, also on failure.
bool AddTokenObject(View& view, Object* object, Place place);

// NameObjects names all anew, as the next look at the file will: where there were equal objects the
// count of those before one may have changed, and so do the objects that the table alone keeps, for
// they come last. False when memory is out.
bool NameObjects(View& view);

// FindNamed returns the object of that name, or NULL.
Object* FindNamed(const View& view, const unsigned char (&name)[NAME_DIGEST_SIZE]);

// A handle that no object has had in this process.
CK_OBJECT_HANDLE NewObjectHandle();

#endif
