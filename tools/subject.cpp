// Reading of names. Every value is checked before OpenSSL sees it: its own parser knows kinds that
// need a configuration file, and crashes without one.
#include "tools/subject.h"

#include "tools/text.h"

#include <openssl/err.h>

#include <algorithm>

static const char* const SUBJECT_FORM = "Write it like /C=CN/O=Example/CN=Alice.";
static const char* const SAN_FORM =
    "Write alternative names like DNS:example.org,IP:192.0.2.1,email:a@example.org; DNS, IP, "
    "email, URI and RID are known.";

static const unsigned char* BytesOf(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

static bool IsAscii(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c > 0x20 && c < 0x7f; });
}

// --- Subjects ------------------------------------------------------------------------------------

static constexpr size_t COMMON_NAME_MAX = 64;  // characters; RFC 5280, A.1, ub-common-name

static size_t Characters(std::string_view text) {
  size_t count = 0;
  for (; !text.empty(); count++) DecodeUtf8(&text);
  return count;
}

static void CheckEntry(const std::string& type, const std::string& value) {
  const std::string part = "The subject's part '" + type + "=" + value + "' ";
  if (type.empty() || value.empty())
    throw Failure(EXIT_USAGE, part + "is not understood.", SUBJECT_FORM);
  if (Printable(value) != value) {
    throw Failure(EXIT_USAGE, part + "holds a control or invisible character, or is no UTF-8.");
  }
  const bool letters = value.size() == 2 && std::all_of(value.begin(), value.end(), [](char c) {
                         return c >= 'A' && c <= 'Z';
                       });
  if (type == "C" && !letters) {
    throw Failure(EXIT_USAGE, part + "is no country: two capital letters are, as in C=CN.");
  }
  if (type == "CN" && Characters(value) > COMMON_NAME_MAX) {
    throw Failure(EXIT_USAGE, part + "is too long: a CN has at most 64 characters.",
                  "Longer names can stand in --san.");
  }
}

static void AddEntry(X509_NAME* name, const std::string& type, const std::string& value) {
  CheckEntry(type, value);
  if (X509_NAME_add_entry_by_txt(name, type.c_str(), MBSTRING_UTF8, BytesOf(value),
                                 static_cast<int>(value.size()), -1, 0) == 1) {
    return;
  }
  const char* reason = ERR_reason_error_string(ERR_peek_last_error());
  ERR_clear_error();
  throw Failure(EXIT_USAGE,
                "The subject's part '" + type + "=" + value + "' is not understood" +
                    (reason == nullptr ? "." : ": " + std::string(reason) + "."),
                SUBJECT_FORM);
}

Name ParseName(const std::string& text) {
  Name name(X509_NAME_new());
  if (!name) throw std::bad_alloc();
  if (!text.starts_with('/')) {
    throw Failure(EXIT_USAGE, "The subject must begin with a slash, as in /CN=Alice.");
  }
  std::string parts[2];  // type, value
  size_t part = 0;
  for (size_t i = 1; i <= text.size(); i++) {
    if (i == text.size() || text[i] == '/') {
      AddEntry(name.get(), parts[0], parts[1]);
      parts[0].clear();
      parts[1].clear();
      part = 0;
    } else if (text[i] == '=' && part == 0) {
      part = 1;
    } else if (text[i] == '+') {
      throw Failure(EXIT_USAGE,
                    "The subject holds a +, which may join two parts into one; that is not done "
                    "here.",
                    "Write \\+ for a plus.");
    } else {
      if (text[i] == '\\' && i + 1 < text.size()) i++;
      parts[part] += text[i];
    }
  }
  return name;
}

// --- Alternative names ---------------------------------------------------------------------------

static bool IsDnsLabel(const std::string& label) {
  const auto isPart = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_';
  };
  return !label.empty() && label.size() <= 63 && label.front() != '-' && label.back() != '-' &&
         std::all_of(label.begin(), label.end(), isPart);
}

static void CheckDns(const std::string& value) {
  if (!IsAscii(value)) {
    throw Failure(EXIT_USAGE, "The name DNS:" + value + " is not ASCII.",
                  "Write international names in their xn-- form.");
  }
  std::vector<std::string> labels = Split(value, '.');
  if (labels.size() > 1 && labels.front() == "*") labels.erase(labels.begin());
  if (value.size() > 253 || !std::all_of(labels.begin(), labels.end(), IsDnsLabel)) {
    throw Failure(EXIT_USAGE, "DNS:" + value + " is no DNS name.", SAN_FORM);
  }
}

static void CheckEmail(const std::string& value) {
  const size_t at = value.find('@');
  if (IsAscii(value) && at != value.npos && at > 0 && at + 1 < value.size()) return;
  throw Failure(EXIT_USAGE, "email:" + value + " is no address.", SAN_FORM);
}

static void CheckUri(const std::string& value) {
  const size_t colon = value.find(':');
  if (IsAscii(value) && colon != value.npos && colon > 0) return;
  throw Failure(EXIT_USAGE, "URI:" + value + " is no absolute URI.", SAN_FORM);
}

static void CheckAnything(const std::string& value) {
  if (!IsAscii(value)) throw Failure(EXIT_USAGE, value + " is not understood.", SAN_FORM);
}

static constexpr struct {
  const char* name;
  int type;
  void (*check)(const std::string& value);
} KINDS[] = {{"dns", GEN_DNS, CheckDns},
             {"ip", GEN_IPADD, CheckAnything},
             {"email", GEN_EMAIL, CheckEmail},
             {"uri", GEN_URI, CheckUri},
             {"rid", GEN_RID, CheckAnything}};

static GENERAL_NAME* ParseAlternativeName(const std::string& text) {
  const size_t colon = text.find(':');
  const std::string kind = Lower(text.substr(0, colon));
  const std::string value = colon == text.npos ? "" : text.substr(colon + 1);
  for (const auto& known : KINDS) {
    if (kind != known.name || value.empty()) continue;
    known.check(value);
    GENERAL_NAME* name = a2i_GENERAL_NAME(nullptr, nullptr, nullptr, known.type, value.c_str(), 0);
    if (name != nullptr) return name;
    ERR_clear_error();
  }
  throw Failure(EXIT_USAGE, "The alternative name '" + text + "' is not understood.", SAN_FORM);
}

AlternativeNames ParseAlternativeNames(const std::string& text) {
  AlternativeNames names(GENERAL_NAMES_new());
  if (!names) throw std::bad_alloc();
  for (const std::string& part : Split(text, ',')) {
    GENERAL_NAME* name = ParseAlternativeName(part);
    if (sk_GENERAL_NAME_push(names.get(), name) > 0) continue;
    GENERAL_NAME_free(name);
    throw std::bad_alloc();
  }
  return names;
}

// --- Uses ----------------------------------------------------------------------------------------

static std::string CheckWords(const std::string& text, const std::vector<std::string>& known,
                              bool takesOids) {
  for (const std::string& word : Split(text, ',')) {
    if (std::find(known.begin(), known.end(), word) != known.end()) continue;
    const bool oid =
        takesOids && !word.empty() && word.find_first_not_of("0123456789.") == word.npos;
    if (oid && word.find('.') != word.npos) continue;
    return "knows no " + word + ", but " + Join(known);
  }
  return "";
}

std::string CheckKeyUsage(const std::string& text) {
  return CheckWords(text,
                    {"digitalSignature", "nonRepudiation", "keyEncipherment", "dataEncipherment",
                     "keyAgreement", "keyCertSign", "cRLSign", "encipherOnly", "decipherOnly"},
                    false);
}

std::string CheckExtendedKeyUsage(const std::string& text) {
  return CheckWords(text,
                    {"serverAuth", "clientAuth", "codeSigning", "emailProtection", "timeStamping",
                     "OCSPSigning", "anyExtendedKeyUsage"},
                    true);
}
