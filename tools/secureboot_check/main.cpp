// secureboot_check: checks an installed application against its signed file lists, as the product does, and
// says which file failed.
#include <inttypes.h>
#include <stdio.h>

#include <filesystem>
#include <system_error>

#include "ask_product.h"
#include "cms/openssl_owners.h"
#include "cms/root_ca.h"
#include "options.h"
#include "report.h"
#include "text_out.h"

namespace {

constexpr int kExitGenuine = 0;
constexpr int kExitRefused = 1;
constexpr int kExitUsage = 2;

constexpr char kUsage[] =
    R"(Usage: secureboot_check DIR APP [OPTION]...

Checks the files of the installed application APP against the signed lists in its directory DIR, by the
product's own verification, and says which file failed. Nothing is changed.

  --mode N     the list APP_filelist (1, default), gst_APP_filelist (2), or both (3)
  --file PATH  check this file alone, named as in the list
  --root FILE  trust this root certificate in place of the built-in one
  --json       print one JSON object

Exit status: 0 genuine, 1 refused, 2 wrong usage.
)";

int RefuseUsage(const std::string& text) {
  fprintf(stderr, "secureboot_check: %s\n\n%s", text.c_str(), kUsage);
  return kExitUsage;
}

/// The built-in roots, and the stored revocation lists left alone: secure boot uses its own.
bool TrustRoots(const std::string& rootCert, std::string& bytes, std::string& error) {
  if (!cms::InitCrypto()) {
    error = "libcrypto cannot be used";
    return false;
  }
  for (const TOLA_ROOT_CA_S& root :
       {TOLA_SignatureVerifGetRootCARSA2048(), TOLA_SignatureVerifGetRootCARSA3072()}) {
    if (TOLA_SignatureVerificationAddRootCA(root) == 0) continue;
    error = "a built-in root cannot be used";
    return false;
  }
  return TrustRoot(rootCert, 0, bytes, error);
}

void Print(const CheckedList& list) {
  printf("mode %" PRIu32 ", %s: ", list.mode, Clean(list.list).c_str());
  if (list.code == 0) {
    printf("GENUINE\n");
  } else {
    printf("REFUSED with %" PRIu32 ": %s\n", list.code, ReasonOf(list.code));
  }
  size_t matching = 0;
  for (const CheckedFile& file : list.files) {
    if (file.state == "matches") {
      ++matching;
    } else {
      printf("  %s: %s\n", Clean(file.file).c_str(), file.state.c_str());
    }
  }
  printf("  %zu of %zu files as listed\n", matching, list.files.size());
  for (const std::string& line : list.said) printf("  log: %s\n", Clean(line).c_str());
}

std::string Json(const CheckedList& list) {
  const auto file = [](const CheckedFile& f) {
    return "{\"file\":" + Quoted(f.file) + ",\"state\":" + Quoted(f.state) + "}";
  };
  return "{\"mode\":" + std::to_string(list.mode) + ",\"list\":" + Quoted(list.list) +
         ",\"code\":" + std::to_string(list.code) + ",\"reason\":" + Quoted(ReasonOf(list.code)) +
         ",\"files\":" + Joined(list.files, file) + ",\"log\":" + Joined(list.said, Quoted) + "}";
}

}  // namespace

int main(int argc, char** argv) {
  std::string modeText, oneFile, rootCert, error;
  bool json = false, help = false;
  const Option options[] = {
      {"mode", &modeText}, {"file", &oneFile}, {"root", &rootCert}, {"json", &json}, {"help", &help}};
  std::vector<std::string> words;
  long mode = 1;
  if (!ParseOptions({argv + 1, static_cast<size_t>(argc > 0 ? argc - 1 : 0)}, options, words, error) ||
      !ParseNumber(modeText, "--mode", 1, 3, mode, error)) {
    return RefuseUsage(error);
  }
  if (help) {
    fputs(kUsage, stdout);
    return kExitGenuine;
  }
  if (words.size() != 2) return RefuseUsage("name a directory and an application");
  std::error_code fault;
  if (!std::filesystem::is_directory(words[0], fault))
    return RefuseUsage("there is no directory " + words[0]);

  std::string root;  // the root table points at it
  if (!TrustRoots(rootCert, root, error)) return RefuseUsage(error);
  std::vector<CheckedList> lists;
  bool genuine = true;
  for (const uint32_t one : {1u, 2u}) {
    if ((static_cast<uint32_t>(mode) & one) == 0) continue;
    CheckedList list;
    if (!CheckList(words[0], words[1], one, oneFile, list)) return RefuseUsage("the names are too long");
    genuine = genuine && list.code == 0;
    lists.push_back(std::move(list));
  }
  if (json) {
    printf("{\"genuine\":%s,\"lists\":%s}\n", genuine ? "true" : "false", Joined(lists, Json).c_str());
  } else {
    for (const CheckedList& list : lists) Print(list);
  }
  return genuine ? kExitGenuine : kExitRefused;
}
