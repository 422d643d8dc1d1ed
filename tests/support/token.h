// Tokens of the PKCS #11 library, which is loaded at run time as programs do it.
#ifndef VAKRO_TESTS_TOKEN_H
#define VAKRO_TESTS_TOKEN_H

#include "tests/support/device_file.h"
#include "tests/support/folder.h"

#include <pkcs11.h>

#include <memory>
#include <string>
#include <vector>

// The five kinds of operations, called alike. Of a verification, `out` is the signature.
enum Kind { DIGEST, SIGN, VERIFY, ENCRYPT, DECRYPT, KINDS };

// A library that is loaded and initialised over `folder`, which ends with a slash.
class Library {
 public:
  explicit Library(const std::string& folder, const std::string& options = "");
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
  ~Library();
  const CK_FUNCTION_LIST_3_0* operator->() const { return functions_; }
  std::vector<CK_SLOT_ID> Slots() const;  // with a token

  CK_RV Begin(CK_SESSION_HANDLE session, Kind kind, CK_MECHANISM* mechanism,
              CK_OBJECT_HANDLE key) const;
  CK_RV Update(CK_SESSION_HANDLE session, Kind kind, std::string_view part, CK_BYTE* out,
               CK_ULONG* outLen) const;
  CK_RV Run(CK_SESSION_HANDLE session, Kind kind, std::string_view input, CK_BYTE* out,
            CK_ULONG* outLen) const;
  CK_RV Finish(CK_SESSION_HANDLE session, Kind kind, CK_BYTE* out, CK_ULONG* outLen) const;

 private:
  void* handle_ = nullptr;
  const CK_FUNCTION_LIST_3_0* functions_ = nullptr;
};

inline constexpr std::string_view P256("\x06\x08\x2a\x86\x48\xce\x3d\x03\x01\x07", 10);

// A template in the making; values live as long as it does.
struct Wanted {
  std::vector<CK_ATTRIBUTE> list;
  std::vector<std::unique_ptr<std::string>> values;
  Wanted& Text(CK_ATTRIBUTE_TYPE type, std::string_view value) {
    values.push_back(std::make_unique<std::string>(value));
    list.push_back({type, values.back()->data(), value.size()});
    return *this;
  }
  Wanted& Number(CK_ATTRIBUTE_TYPE type, CK_ULONG value) {
    return Text(type, {reinterpret_cast<char*>(&value), sizeof value});
  }
  Wanted& Flag(CK_ATTRIBUTE_TYPE type, bool value) { return Text(type, {value ? "\1" : "\0", 1}); }
  CK_ULONG count() const { return list.size(); }
};

inline CK_BYTE* Bytes(std::string_view bytes) {
  return reinterpret_cast<CK_BYTE*>(const_cast<char*>(bytes.data()));
}

// A session on the folder's one token, logged in unless the PIN is empty.
struct Client {
  const Library& p11;
  CK_SLOT_ID slot = 0;
  CK_SESSION_HANDLE session = 0;

  explicit Client(const Library& library, std::string_view pin = PIN, CK_USER_TYPE user = CKU_USER);
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  ~Client() { p11->C_CloseSession(session); }

  CK_RV Login(std::string_view pin, CK_USER_TYPE user = CKU_USER) const;
  CK_RV Generate(const std::string& id, CK_OBJECT_HANDLE* priv, CK_OBJECT_HANDLE* pub) const;
  std::vector<CK_OBJECT_HANDLE> Find(const Wanted& wanted) const;
  size_t Count(CK_OBJECT_CLASS cls) const { return Find(Wanted().Number(CKA_CLASS, cls)).size(); }
  std::string Get(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const;
  CK_RV Set(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type, std::string_view value) const;
  CK_OBJECT_HANDLE Create(Wanted& wanted, CK_RV want = CKR_OK) const;
  CK_RV Sign(CK_OBJECT_HANDLE key) const;  // with ECDSA
};

#endif
