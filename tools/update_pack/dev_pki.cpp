// The development CA: a directory with root.crt and root.key, a key and a certificate a signer, the file
// "revoked" with a line for each revoked certificate, and the number of the last revocation list. Never for
// products.
#include <stdio.h>
#include <sys/stat.h>

#include <charconv>
#include <sstream>

#include "commands.h"
#include "file_names.h"
#include "issue.h"
#include "options.h"
#include "tool_io.h"
#include "velto/kel_clock.h"

namespace {

constexpr char kUsage[] =
    R"(Usage: update_pack dev-pki init --out DIR [--root-key FILE --root-cert FILE] [--name TEXT] [--days N]
       update_pack dev-pki signer NAME [--pki DIR] [--days N] [--expired]
       update_pack dev-pki revoke NAME [--pki DIR]
       update_pack dev-pki crl [--pki DIR] [--number N] [--this-update TIME] [--next-update TIME] [--out FILE]

A certification authority for development: never for products.

  init    makes DIR with a root; or with the one that is given, such as a build's dev_roots
  signer  issues NAME.crt with the key NAME.key for signing updates
  revoke  marks NAME's certificate as revoked; the next list names it
  crl     makes the revocation list of the root

  --pki DIR           the authority's directory (pki)
  --days N            days until the certificate expires (init 3650, signer 365)
  --expired           the certificate expired yesterday
  --number N          number of the list (one more than the last)
  --this-update TIME  date of the list (now); TIME is now, -3d, +1d, 2026-01-31 or 2026-01-31T12:00:00Z
  --next-update TIME  end of the list's validity (+30d)
  --out FILE          the list's file (DIR/root.crl)
)";

constexpr int64_t kDay = 86400;

int64_t Now() {
  return static_cast<int64_t>(KEL_ClockWallNs() / 1000000000u);
}

bool WriteKey(const std::string& path, EVP_PKEY* key, std::string& error) {
  std::string pem = KeyPem(key);
  const bool written = !pem.empty() && WriteWholeFile(path, pem, 0600, error);
  if (pem.empty()) error = "cannot write the key: " + CryptoError();
  OPENSSL_cleanse(pem.data(), pem.size());
  return written;
}

bool LoadAuthority(const std::string& keyPath, const std::string& certPath, Authority& authority,
                   std::string& error) {
  authority.key = LoadKey(keyPath, error);
  if (!authority.key) return false;
  std::vector<cms::CertPtr> certs = LoadCerts(certPath, error);
  if (certs.empty()) return false;
  authority.cert = std::move(certs.front());
  if (X509_check_private_key(authority.cert.get(), authority.key.get()) != 1) {
    error = "the key " + keyPath + " does not belong to the certificate " + certPath;
    return false;
  }
  return true;
}

bool OpenPki(const std::string& directory, Authority& authority, std::string& error) {
  if (LoadAuthority(directory + "/root.key", directory + "/root.crt", authority, error)) return true;
  error += "; make an authority with 'update_pack dev-pki init --out " + directory + "'";
  return false;
}

/// A name that is safe as a file name and none of the authority's own.
bool CheckSignerName(const std::vector<std::string>& words, std::string& error) {
  if (words.size() != 1) {
    error = "name one signer";
  } else if (!IsPlainFileName(words[0]) || words[0] == "root" || words[0] == "revoked") {
    error =
        "a signer's name has letters, digits, '.', '_' and '-' only, begins with a letter or a digit, and is "
        "not "
        "root or revoked: " +
        words[0];
  }
  return error.empty();
}

bool ReadRevoked(const std::string& directory, std::vector<RevokedCert>& revoked, std::string& error) {
  const std::string path = directory + "/revoked";
  std::string text;
  if (!IsRegularFile(path)) return true;
  if (!ReadSmallFile(path, text, error)) return false;
  std::istringstream lines(text);
  RevokedCert one;
  std::string name;
  while (lines >> one.serial >> one.date >> name) revoked.push_back(one);
  return true;
}

int Init(std::span<char* const> arguments) {
  std::string out, rootKey, rootCert, name, days, error;
  const Option options[] = {
      {"out", &out}, {"root-key", &rootKey}, {"root-cert", &rootCert}, {"name", &name}, {"days", &days}};
  std::vector<std::string> words;
  long validity = 3650;
  if (!ParseOptions(arguments, options, words, error) ||
      !ParseNumber(days, "--days", 1, 36500, validity, error)) {
    return RefuseUsage(error, kUsage);
  }
  if (out.empty() || !words.empty())
    return RefuseUsage("name the authority's directory with --out DIR", kUsage);
  if (rootKey.empty() != rootCert.empty())
    return RefuseUsage("--root-key and --root-cert go together", kUsage);

  Authority root;
  if (!rootKey.empty()) {
    if (!LoadAuthority(rootKey, rootCert, root, error)) return Refuse(error);
  } else {
    const CertPlan plan = {name.empty() ? "development root" : name, true, Now() - kDay,
                           Now() + validity * kDay};
    root.key = NewRsaKey(2048);
    if (root.key) root.cert = IssueCert(plan, root.key.get(), nullptr);
    if (!root.cert) return Refuse("cannot make the root: " + CryptoError());
  }
  ScratchDir stage;
  if (!stage.Make(out + ".part-", error) || !WriteKey(stage.File("root.key"), root.key.get(), error) ||
      !WriteWholeFile(stage.File("root.crt"), CertPem(root.cert.get()), 0644, error)) {
    return Refuse(error);
  }
  if (!stage.RenameTo(out, error)) return Refuse(error + "; it must be a new or an empty directory");
  printf("%s: authority of '%s'\n", out.c_str(), NameText(X509_get_subject_name(root.cert.get())).c_str());
  return kExitDone;
}

int Signer(std::span<char* const> arguments) {
  std::string pki, days, error;
  bool expired = false;
  const Option options[] = {{"pki", &pki}, {"days", &days}, {"expired", &expired}};
  std::vector<std::string> words;
  long validity = 365;
  if (!ParseOptions(arguments, options, words, error) ||
      !ParseNumber(days, "--days", 1, 36500, validity, error) || !CheckSignerName(words, error)) {
    return RefuseUsage(error, kUsage);
  }
  if (pki.empty()) pki = "pki";
  Authority root;
  if (!OpenPki(pki, root, error)) return Refuse(error);
  const std::string stem = pki + "/" + words[0];
  if (IsRegularFile(stem + ".crt")) return Refuse(stem + ".crt exists; choose another name");

  const int64_t end = expired ? Now() - kDay : Now() + validity * kDay;
  const int64_t begin = expired ? end - validity * kDay : Now() - kDay;
  const cms::KeyPtr key = NewRsaKey(2048);
  cms::CertPtr cert;
  if (key) cert = IssueCert({words[0], false, begin, end}, key.get(), &root);
  if (!cert) return Refuse("cannot issue the certificate: " + CryptoError());
  if (!WriteKey(stem + ".key", key.get(), error) ||
      !WriteWholeFile(stem + ".crt", CertPem(cert.get()), 0644, error)) {
    return Refuse(error);
  }
  printf("%s.crt: signer until %s\n", stem.c_str(), TimeText(X509_get0_notAfter(cert.get())).c_str());
  return kExitDone;
}

int Revoke(std::span<char* const> arguments) {
  std::string pki, error;
  const Option options[] = {{"pki", &pki}};
  std::vector<std::string> words;
  if (!ParseOptions(arguments, options, words, error) || !CheckSignerName(words, error)) {
    return RefuseUsage(error, kUsage);
  }
  if (pki.empty()) pki = "pki";
  const std::vector<cms::CertPtr> certs = LoadCerts(pki + "/" + words[0] + ".crt", error);
  std::vector<RevokedCert> revoked;
  if (certs.empty() || !ReadRevoked(pki, revoked, error)) return Refuse(error);
  const std::string serial = SerialText(X509_get0_serialNumber(certs.front().get()));
  for (const RevokedCert& one : revoked) {
    if (one.serial == serial) return Refuse(words[0] + " is revoked already");
  }
  std::string text;
  if (IsRegularFile(pki + "/revoked") && !ReadSmallFile(pki + "/revoked", text, error)) return Refuse(error);
  text += serial + " " + std::to_string(Now()) + " " + words[0] + "\n";
  if (!WriteWholeFile(pki + "/revoked", text, 0644, error)) return Refuse(error);
  printf("%s: serial %s is named by the next list\n", words[0].c_str(), serial.c_str());
  return kExitDone;
}

/// Number of the last list that the authority made; 0 for none.
long LastNumber(const std::string& directory) {
  std::string text, ignored;  // no file: no list yet
  long number = 0;
  if (ReadSmallFile(directory + "/crl_number", text, ignored)) {
    (void)std::from_chars(text.data(), text.data() + text.size(), number);  // 0 when it is no number
  }
  return number;
}

int Crl(std::span<char* const> arguments) {
  std::string pki, number, from, until, out, error;
  const Option options[] = {
      {"pki", &pki}, {"number", &number}, {"this-update", &from}, {"next-update", &until}, {"out", &out}};
  std::vector<std::string> words;
  CrlPlan plan;
  if (!ParseOptions(arguments, options, words, error)) return RefuseUsage(error, kUsage);
  if (!words.empty()) return RefuseUsage("crl takes options only, not '" + words[0] + "'", kUsage);
  if (pki.empty()) pki = "pki";
  const long last = LastNumber(pki);
  long value = last + 1;
  if (!ParseNumber(number, "--number", 0, 2000000000, value, error) ||
      !ParseTime(from.empty() ? "now" : from, Now(), plan.thisUpdate, error) ||
      !ParseTime(until.empty() ? "+30d" : until, Now(), plan.nextUpdate, error)) {
    return RefuseUsage(error, kUsage);
  }
  Authority root;
  if (!OpenPki(pki, root, error) || !ReadRevoked(pki, plan.revoked, error)) return Refuse(error);
  plan.number = std::to_string(value);
  const cms::CrlPtr crl = IssueCrl(plan, root);
  if (!crl) return Refuse("cannot make the revocation list: " + CryptoError());
  if (out.empty()) out = pki + "/root.crl";
  if (!WriteWholeFile(out, CrlDer(crl.get()), 0644, error) ||
      (value > last && !WriteWholeFile(pki + "/crl_number", plan.number + "\n", 0644, error))) {
    return Refuse(error);
  }
  printf("%s: list %ld of %s, %zu revoked\n", out.c_str(), value,
         TimeText(X509_CRL_get0_lastUpdate(crl.get())).c_str(), plan.revoked.size());
  return kExitDone;
}

}  // namespace

int RunDevPki(std::span<char* const> arguments) {
  if (arguments.empty()) return RefuseUsage("name what to do: init, signer, revoke or crl", kUsage);
  const std::string action = arguments[0];
  if (action == "--help" || (arguments.size() > 1 && std::string(arguments[1]) == "--help")) {
    fputs(kUsage, stdout);
    return kExitDone;
  }
  arguments = arguments.subspan(1);
  if (action == "init") return Init(arguments);
  if (action == "signer") return Signer(arguments);
  if (action == "revoke") return Revoke(arguments);
  if (action == "crl") return Crl(arguments);
  return RefuseUsage("dev-pki knows init, signer, revoke and crl, not '" + action + "'", kUsage);
}
