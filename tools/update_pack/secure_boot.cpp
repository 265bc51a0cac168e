// Making the signed list of an installed application: every file below its directory with its digest, the
// signature over the list, and the revocation list, under the names by which a device looks for them.
#include <stdio.h>

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "commands.h"
#include "file_names.h"
#include "options.h"
#include "package_plan.h"
#include "signing.h"
#include "tool_io.h"
#include "verify/secureboot_verify.h"

namespace {

namespace fs = std::filesystem;

constexpr char kUsage[] =
    R"(Usage: update_pack secure-boot DIR --app NAME --key FILE --cert FILE --crl FILE [OPTION]...

Lists every file below the application's directory DIR with its digest and puts the list, its signature and
the revocation list into DIR, as NAME_filelist.txt, .cms and .crl. Run it again when a file has changed.

  --app NAME          the application's name, as the device knows it
  --key FILE          the signer's private key, PEM or DER, without a pass phrase
  --cert FILE         the signer's certificate; certificates behind it are taken as the chain
  --chain FILE        intermediate certificates
  --crl FILE          the revocation list of the signer's authority (DER, or PEM with one or more)
  --mode N            1 (default), or 2: the three names begin with "gst_"
  --installed-at DIR  where the files will be on the device (default: DIR)
  --loose FILE        named below DIR; the device lets it pass when it has changed; may be repeated
  --digest NAME       of the signature: sha256 (default), sha384 or sha512
)";

struct Plan {
  std::string directory;
  std::string app;
  std::string key, cert, chain, crl;
  std::string installedAt;
  std::string digest;
  std::vector<std::string> loose;
  long mode = 1;
};

bool IsListFile(const std::string& name) {
  for (const char* suffix : {"_filelist.txt", "_filelist.cms", "_filelist.crl"}) {
    if (name.ends_with(suffix)) return true;
  }
  return false;
}

/// Paths below `directory` of its files, in order; the signed lists that lie directly in it are none.
bool FindFiles(const std::string& directory, std::vector<std::string>& files, std::string& error) {
  std::error_code fault;
  fs::recursive_directory_iterator at(directory, fault);
  for (; !fault && at != fs::recursive_directory_iterator(); at.increment(fault)) {
    const std::string name = at->path().lexically_relative(directory).string();
    if (at->is_symlink()) {
      Note(name + " is a link and is not listed");
    } else if (at->is_regular_file() && !(at.depth() == 0 && IsListFile(name))) {
      files.push_back(name);
    }
  }
  if (fault) {
    error = "cannot look through " + directory + ": " + fault.message();
  } else if (files.empty()) {
    error = directory + " holds no file";
  } else if (files.size() > kListEntryLimit) {
    error = directory + " holds " + std::to_string(files.size()) + " files; a list has at most 255";
  }
  std::sort(files.begin(), files.end());
  return error.empty();
}

/// The entry of a file; `place` is its directory on the device with a slash at its end.
bool AppendEntry(const Plan& plan, const std::string& file, std::string& list, std::string& error) {
  const size_t slash = file.rfind('/');
  const std::string place =
      plan.installedAt + "/" + (slash == std::string::npos ? "" : file.substr(0, slash + 1));
  const std::string name = BaseName(file);
  const bool plain = std::none_of(file.begin(), file.end(), [](char c) { return c == '\r' || c == '\n'; });
  if (!plain || (place + name).find("FileName=") != std::string::npos) {
    error = "the name of '" + file + "' cannot stand in a list; rename it";
    return false;
  }
  if (name.size() > kListNameMax || place.size() > kListNameMax) {
    error = file + ": name and directory on the device have at most 128 characters each";
    return false;
  }
  char digest[kDigestText];
  if (CalcFileHashStr((plan.directory + "/" + file).c_str(), digest, sizeof(digest)) != 0) {
    error = "cannot read " + file;
    return false;
  }
  const bool loose = std::find(plan.loose.begin(), plan.loose.end(), file) != plan.loose.end();
  list += "FileName=" + name + "\nSHA256-Digest=" + digest + "\nFilePath=" + place + "\n" +
          (loose ? "ForceVerify=0\n" : "");
  return true;
}

bool Build(const Plan& plan, const SigningMaterial& material, size_t& count, std::string& error) {
  std::vector<std::string> files;
  if (!FindFiles(plan.directory, files, error)) return false;
  for (const std::string& file : plan.loose) {
    if (std::find(files.begin(), files.end(), file) != files.end()) continue;
    error = "--loose " + file + " is no file below " + plan.directory;
    return false;
  }
  count = files.size();
  std::string list = "FileNum=" + std::to_string(count) + "\n";
  for (const std::string& file : files) {
    if (!AppendEntry(plan, file, list, error)) return false;
  }
  SIGNATURE_VERIFY_BLOCK_S names;
  if (MakeSecureBootFullFilePathByMode(names, plan.directory.c_str(), plan.app.c_str(),
                                       static_cast<uint32_t>(plan.mode)) != 0) {
    error = "directory and application name are too long together for a device";
    return false;
  }
  std::string signature, crl;
  return SignDetached(material, list, plan.digest, signature, error) && ReadSmallFile(plan.crl, crl, error) &&
         WriteWholeFile(names.crlPath, crl, 0644, error) &&
         WriteWholeFile(names.contentPath, list, 0644, error) &&
         WriteWholeFile(names.signaturePath, signature, 0644, error);
}

bool CheckPlan(Plan& plan, std::string& error) {
  std::error_code fault;
  const fs::path whole = fs::canonical(plan.directory, fault);
  if (fault || !fs::is_directory(whole, fault)) {
    error = "there is no directory " + plan.directory;
  } else if (!IsPlainFileName(plan.app)) {
    error = "--app is a name of letters, digits, '.', '_' and '-', not '" + plan.app + "'";
  }
  plan.directory = whole.string();
  if (plan.installedAt.empty()) plan.installedAt = plan.directory;
  while (plan.installedAt.ends_with('/')) plan.installedAt.pop_back();
  if (plan.digest.empty()) plan.digest = "sha256";
  return error.empty();
}

}  // namespace

int RunSecureBoot(std::span<char* const> arguments) {
  Plan plan;
  std::string mode, error;
  bool help = false;
  const Option options[] = {{"app", &plan.app},       {"key", &plan.key},
                            {"cert", &plan.cert},     {"chain", &plan.chain},
                            {"crl", &plan.crl},       {"installed-at", &plan.installedAt},
                            {"digest", &plan.digest}, {"loose", &plan.loose},
                            {"mode", &mode},          {"help", &help}};
  std::vector<std::string> words;
  if (!ParseOptions(arguments, options, words, error)) return RefuseUsage(error, kUsage);
  if (help) {
    fputs(kUsage, stdout);
    return kExitDone;
  }
  if (words.size() != 1) return RefuseUsage("name one application directory", kUsage);
  if (!ParseNumber(mode, "--mode", 1, 2, plan.mode, error)) return RefuseUsage(error, kUsage);
  for (const auto& [value, name] :
       {std::pair(&plan.app, "--app"), {&plan.key, "--key"}, {&plan.cert, "--cert"}, {&plan.crl, "--crl"}}) {
    if (value->empty()) return RefuseUsage(std::string(name) + " is missing", kUsage);
  }
  plan.directory = words[0];
  SigningMaterial material;
  size_t count = 0;
  if (!CheckPlan(plan, error) ||
      !LoadSigningMaterial(plan.key, plan.cert, plan.chain, plan.crl, material, error) ||
      !Build(plan, material, count, error)) {
    return Refuse(error);
  }
  printf("%s: %zu files of %s listed for %s\n", plan.directory.c_str(), count, plan.app.c_str(),
         plan.installedAt.c_str());
  return kExitDone;
}
