// What --json says of the records.
#include "tools/describe.h"

#include "tools/keys.h"

static constexpr size_t SHORT_DIGITS = 16;

std::string ShortFingerprint(const std::string& fingerprint) {
  return fingerprint.substr(0, SHORT_DIGITS);
}

Fields FactsOf(Device* device) {
  return {{"serial", device->serialNumber},
          {"label", device->label},
          {"file", device->filePath},
          {"has_pin", device->keypairCount > 0}};
}

static std::string ProblemOf(const KeyTraits& traits) {
  const std::string& kind = traits.kind;
  if (kind != "unknown" && kind != "P-256" && kind != "SM2" && !kind.starts_with("RSA")) {
    return "a stored private key on " + kind +
           " can't be opened again, and it keeps the whole device shut ('softdevice "
           "delete-keypair' gives it up)";
  }
  return traits.fingerprint.empty() ? "its public key does not decode" : "";
}

KeyTraits TraitsOf(Keypair* keypair) {
  KeyTraits traits{KindName(keypair), FingerprintOf(keypair), ""};
  traits.problem = ProblemOf(traits);
  return traits;
}

Fields FactsOf(Keypair* keypair, const KeyTraits& traits) {
  return {{"index", IndexOf(keypair)},
          {"label", keypair->label},
          {"type", keypair->type},
          {"algorithm", traits.kind},
          {"bits", keypair->bits},
          {"fingerprint", traits.fingerprint.empty() ? Fact(nullptr) : Fact(traits.fingerprint)}};
}

Fields FactsOf(Keypair* keypair) { return FactsOf(keypair, TraitsOf(keypair)); }

Bytes CertificateAt(Keypair* keypair, int index) {
  int length = 0;
  if (DeviceGetCertificate(keypair, index, nullptr, 0, &length) != VAKRO_OK) return {};
  Bytes der(static_cast<size_t>(length));
  if (DeviceGetCertificate(keypair, index, der.data(), length, &length) != VAKRO_OK) return {};
  return der;
}

static int DaysLeft(const ASN1_TIME* end) {
  int days = 0, seconds = 0;
  if (ASN1_TIME_diff(&days, &seconds, nullptr, end) != 1) return 0;
  return seconds < 0 ? days - 1 : days;
}

std::string ExpiryText(const X509* cert) {
  const ASN1_TIME *begin = X509_get0_notBefore(cert), *end = X509_get0_notAfter(cert);
  if (X509_cmp_current_time(begin) > 0) {
    return TimeText(end) + ", " + Alarming("not valid before " + TimeText(begin));
  }
  const int days = DaysLeft(end);
  const std::string left =
      days < 0 ? Alarming("expired") : Count(static_cast<size_t>(days), "day") + " left";
  return TimeText(end) + ", " + left;
}

Fields CertificateFacts(Keypair* keypair, int index) {
  const Bytes der = CertificateAt(keypair, index);
  const Certificate cert = CertificateFrom(der);
  Fields facts = {{"index", index + 1}, {"fingerprint", FingerprintOf(der)}, {"bytes", der.size()}};
  if (!cert) return facts;
  const EvpKey key = PublicKeyOf(keypair);
  const ASN1_TIME* end = X509_get0_notAfter(cert.get());
  facts.insert(facts.end(),
               {{"subject", NameText(X509_get_subject_name(cert.get()))},
                {"issuer", NameText(X509_get_issuer_name(cert.get()))},
                {"serial", SerialText(cert.get())},
                {"not_before", TimeText(X509_get0_notBefore(cert.get()))},
                {"not_after", TimeText(end)},
                {"days_left", DaysLeft(end)},
                {"own_key", key && EVP_PKEY_eq(X509_get0_pubkey(cert.get()), key.get()) == 1}});
  return facts;
}

Facts CertificatesOf(Keypair* keypair) {
  Facts certs;
  for (int i = 0; i < DeviceGetCertificateCount(keypair); i++) {
    certs.emplace_back(CertificateFacts(keypair, i));
  }
  return certs;
}
