#include "x509_io.h"

#include <openssl/asn1.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <time.h>

#include <charconv>

#include "tool_io.h"

namespace {

cms::BioPtr BioOf(const std::string& bytes) {
  return cms::BioPtr(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
}

/// No terminal is asked for a pass phrase: this tool also runs unattended.
int NoPassPhrase(char*, int, int, void*) {
  return -1;
}

std::string BioText(BIO* bio) {
  char* text = nullptr;
  const long length = BIO_get_mem_data(bio, &text);
  return length > 0 ? std::string(text, static_cast<size_t>(length)) : std::string();
}

/// Everything `readPem` finds in the file, else what `readDer` makes of it.
template <class Owner, class ReadPem, class ReadDer>
std::vector<Owner> Decode(const std::string& bytes, ReadPem readPem, ReadDer readDer) {
  std::vector<Owner> found;
  const cms::BioPtr pem = BioOf(bytes);
  while (auto* one = readPem(pem.get(), nullptr, NoPassPhrase, nullptr)) found.emplace_back(one);
  if (found.empty()) {
    const cms::BioPtr der = BioOf(bytes);
    if (auto* one = readDer(der.get(), nullptr)) found.emplace_back(one);
  }
  ERR_clear_error();  // the end of the file is told as an error
  return found;
}

}  // namespace

cms::KeyPtr LoadKey(const std::string& path, std::string& error) {
  std::string bytes;
  if (!ReadSmallFile(path, bytes, error)) return nullptr;
  cms::KeyPtr key(PEM_read_bio_PrivateKey(BioOf(bytes).get(), nullptr, NoPassPhrase, nullptr));
  if (!key) key.reset(d2i_PrivateKey_bio(BioOf(bytes).get(), nullptr));
  OPENSSL_cleanse(bytes.data(), bytes.size());
  ERR_clear_error();
  if (!key) error = path + " holds no private key in PEM or DER form without a pass phrase";
  return key;
}

std::vector<cms::CertPtr> DecodeCerts(const std::string& bytes) {
  return Decode<cms::CertPtr>(bytes, PEM_read_bio_X509, d2i_X509_bio);
}

std::vector<cms::CertPtr> LoadCerts(const std::string& path, std::string& error) {
  std::string bytes;
  if (!ReadSmallFile(path, bytes, error)) return {};
  std::vector<cms::CertPtr> certs = DecodeCerts(bytes);
  if (certs.empty()) error = path + " holds no certificate in PEM or DER form";
  return certs;
}

std::vector<cms::CrlPtr> LoadCrls(const std::string& path, std::string& error) {
  std::string bytes;
  if (!ReadSmallFile(path, bytes, error)) return {};
  auto crls = Decode<cms::CrlPtr>(bytes, PEM_read_bio_X509_CRL, d2i_X509_CRL_bio);
  if (crls.empty()) error = path + " holds no revocation list in PEM or DER form";
  return crls;
}

std::string NameText(const X509_NAME* name) {
  const cms::BioPtr bio(BIO_new(BIO_s_mem()));
  // Control characters come out escaped, so that no certificate can write on the reader's terminal.
  (void)X509_NAME_print_ex(bio.get(), name, 0, XN_FLAG_ONELINE & ~XN_FLAG_SPC_EQ & ~ASN1_STRFLGS_ESC_MSB);
  return BioText(bio.get());
}

std::string TimeText(const ASN1_TIME* time) {
  struct tm parts = {};
  if (time == nullptr || ASN1_TIME_to_tm(time, &parts) != 1) return "(no time)";
  char text[40];
  return std::string(text, strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S UTC", &parts));
}

std::string SerialText(const ASN1_INTEGER* serial) {
  const base::UniqueC<BIGNUM, BN_free> number(ASN1_INTEGER_to_BN(serial, nullptr));
  const std::unique_ptr<char, void (*)(char*)> text(number ? BN_bn2hex(number.get()) : nullptr,
                                                    [](char* p) { OPENSSL_free(p); });
  return text ? text.get() : "";
}

std::string CrlNumberText(X509_CRL* crl) {
  const base::UniqueC<ASN1_INTEGER, ASN1_INTEGER_free> number(
      static_cast<ASN1_INTEGER*>(X509_CRL_get_ext_d2i(crl, NID_crl_number, nullptr, nullptr)));
  const std::unique_ptr<char, void (*)(char*)> text(
      number ? i2s_ASN1_INTEGER(nullptr, number.get()) : nullptr, [](char* p) { OPENSSL_free(p); });
  return text ? text.get() : "";
}

bool IsOver(const ASN1_TIME* time) {
  return time != nullptr && X509_cmp_current_time(time) < 0;
}

bool ParseTime(const std::string& text, int64_t now, int64_t& seconds, std::string& error) {
  const char* const end = text.data() + text.size();
  if (text == "now") {
    seconds = now;
    return true;
  }
  if (text.size() > 2 && (text[0] == '+' || text[0] == '-') && text.back() == 'd') {
    int days = 0;
    const auto [at, fault] = std::from_chars(text.data() + 1, end - 1, days);
    if (fault == std::errc() && at == end - 1 && days >= 0 && days <= 36500) {
      seconds = now + (text[0] == '-' ? -1 : 1) * static_cast<int64_t>(days) * 86400;
      return true;
    }
  }
  for (const char* form : {"%Y-%m-%dT%H:%M:%SZ", "%Y-%m-%d", "%Y%m%d%H%M%SZ"}) {
    struct tm parts = {};
    const char* stop = strptime(text.c_str(), form, &parts);
    if (stop == nullptr || *stop != '\0') continue;
    const int day = parts.tm_mday;
    seconds = timegm(&parts);
    if (parts.tm_mday == day) return true;  // else a 30th of February
  }
  error = "'" + text + "' is no time: write now, +30d, -1d, 2026-01-31 or 2026-01-31T12:00:00Z";
  return false;
}

bool SetTime(ASN1_TIME* time, int64_t seconds) {
  const time_t at = static_cast<time_t>(seconds);
  struct tm parts = {};
  char text[40];
  return gmtime_r(&at, &parts) != nullptr && strftime(text, sizeof(text), "%Y%m%d%H%M%SZ", &parts) == 15 &&
         ASN1_TIME_set_string_X509(time, text) == 1;
}

std::string CryptoError() {
  const unsigned long code = ERR_peek_last_error();
  const char* reason = code == 0 ? nullptr : ERR_reason_error_string(code);
  ERR_clear_error();
  return reason == nullptr ? "unknown reason" : reason;
}
