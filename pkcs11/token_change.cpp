// Changes of a token.
#include "pkcs11/token_change.h"

#include "device/anchor.h"
#include "keypair/keypair.h"
#include "pkcs11/log.h"
#include "pkcs11/table.h"
#include "pkcs11/view.h"
#include "sm2/sm2.h"
#include "store/store.h"

#include <errno.h>
#include <string.h>

static CK_RV ResultOf(int begun) { return begun == 0 ? CKR_DEVICE_REMOVED : CKR_DEVICE_ERROR; }

CK_RV BeginTokenChange(TokenChange& change) {
  return change.slot.login == Login::NONE ? CKR_USER_NOT_LOGGED_IN : BeginVerifiedChange(change);
}

CK_RV BeginVerifiedChange(TokenChange& change) {
  Slot& slot = change.slot;
  const int begun = BeginChange(slot.path.get(), change.file);
  if (begun != 1) {
    LogReason("%s can't be changed: %s", slot.path.get(),
              begun == 0 ? "missing or damaged" : strerror(errno));
    return ResultOf(begun);
  }
  const int taken = TakeOverKeys(change.device(), slot.device);
  if (taken == VAKRO_FAILED) return CKR_HOST_MEMORY;
  if (taken != VAKRO_OK) {
    LogReason("the file's PIN has been changed elsewhere: nobody is logged in any more");
    EndLogin(slot);
    return CKR_USER_NOT_LOGGED_IN;
  }
  if (LoadTokenView(change.device(), slot.view, change.view) != 1) return CKR_HOST_MEMORY;
  return SeesLess(change.view, *slot.view) ? CKR_DEVICE_ERROR : CKR_OK;
}

// --- The table -----------------------------------------------------------------------------------

static CK_RV PlaceTable(Keypair* anchor, Span certificate) {
  Span former;
  int at = FindTable(anchor, &former);
  if (at < 0 && certificate.empty()) return CKR_OK;
  if (certificate.empty()) {
    FreeCert(anchor->certs[at]);
    for (anchor->certCount--; at < anchor->certCount; at++)
      anchor->certs[at] = anchor->certs[at + 1];
    anchor->certs[anchor->certCount] = nullptr;
    return CKR_OK;
  }
  if (at < 0 && anchor->certCount >= MAX_CERTS) return CKR_DEVICE_MEMORY;
  Cert* const cert = NewCert(certificate.data(), static_cast<int>(certificate.size()));
  if (cert == nullptr) return CKR_HOST_MEMORY;
  if (at < 0) {
    at = anchor->certCount++;
  } else {
    FreeCert(anchor->certs[at]);
  }
  anchor->certs[at] = cert;
  return CKR_OK;
}

CK_RV StoreTable(Device* device, View& view) {
  Buffer table, certificate;
  if (!NameObjects(view) || !WriteTable(view, table)) return CKR_HOST_MEMORY;
  if (IsSame(table, view.table)) return CKR_OK;
  Keypair* anchor = FindAnchor(device);
  if (anchor == nullptr) {
    const int added = AddAnchor(device, device->pin);
    if (added == VAKRO_OUT_OF_RANGE) {
      LogReason("64 keypairs leave no room for the anchor, which keeps what clients set");
      return CKR_DEVICE_MEMORY;
    }
    if (added != VAKRO_OK) return CKR_FUNCTION_FAILED;
    anchor = FindAnchor(device);
  }
  if (table.count > 0) {
    const CK_RV made = MakeTableCertificate(anchor, table, certificate);
    if (made != CKR_OK) return made;
  }
  return PlaceTable(anchor, certificate);
}

CK_RV CommitTokenChange(TokenChange& change) {
  const CK_RV stored = StoreTable(change.device(), change.view);
  if (stored != CKR_OK) return stored;
  errno = 0;
  if (CommitChange(change.file) != 1) {
    LogReason("%s could not be written: %s", change.slot.path.get(), strerror(errno));
    return errno == ENOSPC || errno == EDQUOT ? CKR_DEVICE_MEMORY : CKR_DEVICE_ERROR;
  }
  // The stamp is of the past: the next look reads the file again if another has written meanwhile.
  Stamp stamp;
  if (LookAt(change.slot.path.get(), stamp) != 1) stamp = {};
  stamp.settled = false;
  return Publish(change.slot, TakeRecord(change.file), stamp);
}

// --- Keypairs ------------------------------------------------------------------------------------

CK_RV TakeOutKeypair(TokenChange& change, Object* privateKey) {
  Keypair* const keypair = privateKey->key->keypair;
  Device* const device = change.device();
  View& view = change.view;
  // The public key alone takes the place, and the name, of the one in the pair.
  ObjectKey* const alone = NewObjectKey(privateKey->key->encoding, nullptr);
  KeyUse use;
  use.Reset(alone);
  if (alone == nullptr) return CKR_HOST_MEMORY;
  for (size_t i = view.objects.count; i-- > 0;) {
    Object* const object = view.objects[i];
    if (object->cls != CKO_PUBLIC_KEY || object->key != privateKey->key) continue;
    if (object->set.Flag(HIDDEN, false)) {
      view.Remove(object);
      continue;
    }
    // The keypair's label goes with it; what it stood for stays.
    if (!object->set.Has(CKA_LABEL)) {
      const Span label(reinterpret_cast<const unsigned char*>(keypair->label),
                       strlen(keypair->label));
      if (!object->set.Set(CKA_LABEL, label)) return CKR_HOST_MEMORY;
    }
    ReleaseKey(object->key);
    HoldKey(alone);
    object->key = alone;
    object->place = Place::TABLE;
  }
  for (Object* object : view.objects) {
    if (object->cls != CKO_CERTIFICATE || object->keypair != keypair) continue;
    if (!object->set.Has(CKA_LABEL)) {
      const Span label(reinterpret_cast<const unsigned char*>(keypair->label),
                       strlen(keypair->label));
      if (!object->set.Set(CKA_LABEL, label)) return CKR_HOST_MEMORY;
    }
    object->place = Place::TABLE;
    object->keypair = nullptr;
  }
  view.Remove(privateKey);  // and with it the last handle of the keypair
  DeleteKeypairFromDevice(device, keypair);
  device->refCount--;
  FreeKeypair(keypair);
  return CKR_OK;
}

// A number that tells the keypair from those of the same label, and from the anchor.
static unsigned int FreeType(const Device* device, const char* label) {
  unsigned int type = 1;
  while (HasKeypair(device, type, label) != 0) type++;
  return type;
}

CK_RV PutInKeypair(TokenChange& change, Keypair* made, Object** privateKey, Object** publicKey) {
  OwnedKeypair keypair(made);
  Device* const device = change.device();
  // The last place is the anchor's, if it has none yet: what clients set needs it.
  const int room = MAX_KEYPAIRS - (FindAnchor(device) == nullptr ? 1 : 0);
  if (device->keypairCount >= room) {
    LogReason("the device holds %d keypairs, the most that it can", device->keypairCount);
    return CKR_DEVICE_MEMORY;
  }
  keypair->type = FreeType(device, keypair->label);
  if (AppendKeypair(device, keypair.release()) != VAKRO_OK) return CKR_FUNCTION_FAILED;
  View& view = change.view;
  const size_t before = view.objects.count;
  if (!AddKeypairObjects(device, device->keypairCount - 1, view) ||
      view.objects.count != before + 2)
    return CKR_HOST_MEMORY;
  *privateKey = view.objects[before];
  *publicKey = view.objects[before + 1];
  return CKR_OK;
}

// --- Certificates --------------------------------------------------------------------------------

// The keypair whose public key the certificate holds, if its list has room and not this one yet.
static Keypair* KeypairFor(const TokenChange& change, const Object& certificate) {
  for (const Object* object : change.view.objects) {
    if (object->cls != CKO_PRIVATE_KEY || object->place != Place::KEYPAIR) continue;
    if (!IsSame(object->key->publicKeyInfo, certificate.parsed.publicKeyInfo)) continue;
    Keypair* const keypair = object->key->keypair;
    bool isThere = false;
    for (int i = 0; i < keypair->certCount; i++)
      isThere |= IsSame({keypair->certs[i]->data, static_cast<size_t>(keypair->certs[i]->length)},
                        certificate.certificate);
    if (!isThere && keypair->certCount < MAX_CERTS) return keypair;
  }
  return nullptr;
}

CK_RV PutInCertificate(TokenChange& change, Span certificate, Object** made) {
  Object* const object = NewCertificateObject(certificate);
  if (object == nullptr) return CKR_HOST_MEMORY;
  object->keypair = KeypairFor(change, *object);
  if (object->keypair != nullptr) {
    Cert* const cert = NewCert(certificate.data(), static_cast<int>(certificate.size()));
    if (cert == nullptr) {
      Delete(object);
      return CKR_HOST_MEMORY;
    }
    object->keypair->certs[object->keypair->certCount++] = cert;
    memcpy(object->label, object->keypair->label, NAME_SIZE);
  }
  const Place place = object->keypair != nullptr ? Place::KEYPAIR : Place::TABLE;
  if (!AddTokenObject(change.view, object, place)) return CKR_HOST_MEMORY;
  *made = object;
  return CKR_OK;
}

CK_RV TakeOutCertificate(TokenChange& change, Object* certificate) {
  Keypair* const keypair = certificate->keypair;
  if (keypair != nullptr) {
    int at = 0;
    while (at < keypair->certCount &&
           !IsSame({keypair->certs[at]->data, static_cast<size_t>(keypair->certs[at]->length)},
                   certificate->certificate))
      at++;
    if (at == keypair->certCount) return CKR_FUNCTION_FAILED;
    FreeCert(keypair->certs[at]);
    for (keypair->certCount--; at < keypair->certCount; at++)
      keypair->certs[at] = keypair->certs[at + 1];
    keypair->certs[keypair->certCount] = nullptr;
  }
  change.view.Remove(certificate);
  return CKR_OK;
}

// --- Data objects --------------------------------------------------------------------------------

// Private data is enciphered to the anchor, under which the view knows it from the next look on.
static CK_RV Seal(TokenChange& change, Span value, Buffer& sealed) {
  Device* const device = change.device();
  if (FindAnchor(device) == nullptr) {
    const int added = AddAnchor(device, device->pin);
    if (added != VAKRO_OK)
      return added == VAKRO_OUT_OF_RANGE ? CKR_DEVICE_MEMORY : CKR_FUNCTION_FAILED;
  }
  Keypair* const anchor = FindAnchor(device);
  KeyUse key;
  key.Reset(NewObjectKey({anchor->publicKey, static_cast<size_t>(anchor->publicKeyLen)}, nullptr));
  if (!key || !sealed.Reserve(value.size() + SM2_CIPHER_OVERHEAD)) return CKR_HOST_MEMORY;
  int length = static_cast<int>(value.size()) + SM2_CIPHER_OVERHEAD;
  if (DevicePublicKeyEncrypt(key->publicKey, ALGORITHM_SM2_ENCRYPT, nullptr, value.data(),
                             static_cast<int>(value.size()), sealed.items, length,
                             &length) != VAKRO_OK)
    return CKR_FUNCTION_FAILED;
  sealed.count = static_cast<size_t>(length);
  return CKR_OK;
}

static int FreeNumber(const DeviceChange& file) {
  int number = 1;
  for (unsigned int i = 0; i < file.dataCount; i++)
    if (file.datas[i]->id >= number && file.datas[i]->id < INT_MAX) number = file.datas[i]->id + 1;
  return number;
}

static int IndexOf(const DeviceChange& file, int number) {
  for (unsigned int i = 0; i < file.dataCount; i++)
    if (file.datas[i]->id == number) return static_cast<int>(i);
  return -1;
}

static CK_RV AppendData(DeviceChange& file, int number, Span value) {
  OwnedData data(newData(number, static_cast<int>(value.size())));
  if (!data) return CKR_HOST_MEMORY;
  memcpy(data->value, value.data(), value.size());
  if (file.datas == nullptr) file.datas = Allocate<Data*>(1, "pkcs11");
  if (file.datas == nullptr) return CKR_HOST_MEMORY;
  file.datas[file.dataCount++] = data.release();
  file.datasChanged = true;
  return CKR_OK;
}

CK_RV PutInData(TokenChange& change, Span value, bool isPrivate, Object** made) {
  if (!change.file.datasKnown) return CKR_DEVICE_ERROR;
  Buffer sealed;
  if (isPrivate && !value.empty()) {
    const CK_RV done = Seal(change, value, sealed);
    if (done != CKR_OK) return done;
    value = sealed;
  }
  int number = 0;
  if (!value.empty()) {
    number = FreeNumber(change.file);
    const CK_RV appended = AppendData(change.file, number, value);
    if (appended != CKR_OK) return appended;
  }
  Object* const object = NewDataObject(number, value);
  if (object == nullptr) return CKR_HOST_MEMORY;
  object->label[0] = '\0';  // a client's object has the label that it is given, or none
  const bool added = AddTokenObject(change.view, object, number != 0 ? Place::DATA : Place::TABLE);
  if (!added || !object->set.Set(CKA_LABEL, {})) return CKR_HOST_MEMORY;
  *made = object;
  return CKR_OK;
}

CK_RV SetData(TokenChange& change, Object& object, Span value) {
  if (!change.file.datasKnown) return CKR_DEVICE_ERROR;
  Buffer sealed;
  if (object.IsPrivate() && !value.empty()) {
    const CK_RV done = Seal(change, value, sealed);
    if (done != CKR_OK) return done;
    value = sealed;
  }
  const int at = IndexOf(change.file, object.number);
  if (value.empty() || at < 0) {
    // The number comes or goes, and with it the name; and the handle.
    LogReason("a data object does not become empty, nor an empty one filled; make another");
    return value.empty() && object.number == 0 ? CKR_OK : CKR_ATTRIBUTE_VALUE_INVALID;
  }
  Data* const data = newData(object.number, static_cast<int>(value.size()));
  if (data == nullptr) return CKR_HOST_MEMORY;
  memcpy(data->value, value.data(), value.size());
  data->reserved1 = change.file.datas[at]->reserved1;
  data->reserved2 = change.file.datas[at]->reserved2;
  FreeData(change.file.datas[at]);
  change.file.datas[at] = data;
  change.file.datasChanged = true;
  return CKR_OK;
}

CK_RV TakeOutData(TokenChange& change, Object* object) {
  if (object->number != 0) {
    const int at = IndexOf(change.file, object->number);
    if (at < 0) return CKR_FUNCTION_FAILED;
    removeData(change.file.datas, static_cast<int>(change.file.dataCount), at);
    change.file.dataCount--;
    change.file.datasChanged = true;
  }
  change.view.Remove(object);
  return CKR_OK;
}
