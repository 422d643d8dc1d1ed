// Words for the faults that store/inspect finds.
#include "tools/inspection.h"

#include "store/change.h"
#include "store/inspect.h"
#include "store/store.h"
#include "tools/text.h"

#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>
#include <unistd.h>

#include <algorithm>

const char* WeightName(Weight weight) {
  switch (weight) {
    case Weight::REFUSED:
      return "refused";
    case Weight::SKIPPED:
      return "passed over";
    case Weight::WEAK:
      return "weak";
    default:
      return "note";
  }
}

static Weight WeightOf(FileFault fault) {
  if (fault <= FileFault::ROOT_FIELD) return Weight::REFUSED;
  if (fault == FileFault::SAME_KEYPAIR) return Weight::NOTE;
  return Weight::SKIPPED;
}

// The parser stops at the first byte that fits into no JSON.
static std::string WhereJsonEnds(const Bytes& image) {
  const std::string_view text = ImageText(image.data());
  rapidjson::MemoryStream stream(text.data(), text.size());
  rapidjson::BaseReaderHandler<> ignore;
  rapidjson::Reader reader;
  const rapidjson::ParseResult result =
      reader.Parse<rapidjson::kParseIterativeFlag>(stream, ignore);
  if (!result.IsError()) return "the text is JSON, but nests too deep or holds a control character";
  return "the text is no JSON from byte " + std::to_string(HEADER_SIZE + result.Offset()) +
         " of the file on: " + rapidjson::GetParseError_En(result.Code());
}

static std::string Numbers(const StoredFault& fault) {
  return std::to_string(fault.found) + " where " + std::to_string(fault.wanted);
}

static std::string InWords(const StoredFault& fault, const Bytes& image) {
  const std::string field = fault.field == nullptr ? "" : std::string("the ") + fault.field;
  const std::string at = std::to_string(fault.at + 1);
  switch (fault.fault) {
    case FileFault::SHORT:
      return "the file has " + Numbers(fault) + " bytes are the least";
    case FileFault::LENGTH_WORD:
      return "the length word (byte 4) says " + Numbers(fault) + " fits the file's size";
    case FileFault::DIGEST:
      return "the digest (the last 64 bytes) is not that of the text: the file is damaged";
    case FileFault::TEXT:
      return WhereJsonEnds(image);
    case FileFault::ROOT:
      return "the text is no array of 3 items or more";
    case FileFault::ROOT_FIELD:
      return field + " has the wrong type or is longer than 63 bytes";
    case FileFault::KEYPAIR:
      return "it is no array of 9 items";
    case FileFault::KEYPAIR_FIELD:
      return field + " has the wrong type or is longer than 63 bytes";
    case FileFault::KEYPAIR_HEX:
      return field + " is not hex";
    case FileFault::TOO_MANY_CERTS:
      return "it has " + std::to_string(fault.found) + " certificates; " +
             std::to_string(fault.wanted) + " are the most";
    case FileFault::TOO_MANY_KEYPAIRS:
      return "it comes after the 64th, the last that is loaded";
    case FileFault::CERT:
      return "certificate " + at + " is not base64";
    case FileFault::SAME_KEYPAIR:
      return "it has type and label of an earlier keypair";
    case FileFault::DATAS:
      return "the list of data objects is no array; no call on data objects works";
    case FileFault::DATA:
      return "data object " + at + " of the list breaks the layout; no call on data objects works";
    default:
      return "data object " + at + " of the list has the number of an earlier one";
  }
}

static std::string PlaceOf(const StoredFault& fault) {
  if (fault.keypair < 0) return {};
  return "keypair " + std::to_string(fault.keypair + 1) +
         (fault.label.empty() ? "" : " (" + std::string(fault.label) + ")");
}

namespace {
struct Collection {
  const Bytes& image;
  Inspection inspection;
};
}  // namespace

static void Collect(void* context, const StoredFault& fault) {
  auto& collection = *static_cast<Collection*>(context);
  Inspection& inspection = collection.inspection;
  inspection.findings.push_back(
      {WeightOf(fault.fault), PlaceOf(fault), InWords(fault, collection.image)});
  if (fault.fault == FileFault::DIGEST) inspection.digestHolds = false;
}

static Inspection InspectContent(const Bytes& image) {
  Collection collection{image, {}};
  collection.inspection.digestHolds = true;
  const int loads =
      InspectImage(image.data(), static_cast<unsigned int>(image.size()), Collect, &collection);
  if (loads < 0) throw std::bad_alloc();
  collection.inspection.loads = loads == 1;
  return collection.inspection;
}

static Inspection Refused(const std::string& why) {
  Inspection inspection;
  inspection.findings.push_back({Weight::REFUSED, "", why});
  return inspection;
}

Inspection Inspect(const std::string& path) {
  struct stat status = {};
  if (lstat(path.c_str(), &status) != 0) FailToOpen(path);
  if (stat(path.c_str(), &status) != 0) return Refused("it is a link astray: " + SystemError());
  if (!S_ISREG(status.st_mode)) return Refused("it is no regular file");
  if (access(path.c_str(), R_OK) != 0) return Refused("it can't be read: " + SystemError());
  return InspectContent(ReadInput(path));
}

bool IsDeviceFile(const std::string& path) {
  unsigned char* raw = nullptr;
  unsigned int size = 0;
  const bool good = VerifyDeviceFile(path.c_str(), &raw, &size) == 1;
  const UtilBytes image(good ? raw : nullptr);
  return good;
}

std::string ReasonOf(const Inspection& inspection) {
  const auto heavier = [](const Finding& a, const Finding& b) { return a.weight < b.weight; };
  const auto heaviest =
      std::max_element(inspection.findings.begin(), inspection.findings.end(), heavier);
  if (heaviest == inspection.findings.end()) return {};
  return (heaviest->where.empty() ? "" : heaviest->where + ": ") + heaviest->what;
}

Findings PassedOverKeypairs(const std::string& path) {
  const Inspection inspection = Inspect(path);
  Findings passed;
  for (const Finding& finding : inspection.findings) {
    const bool isKeypair = finding.where.starts_with("keypair ");
    if (isKeypair && finding.weight == Weight::SKIPPED) passed.push_back(finding);
  }
  return passed;
}
