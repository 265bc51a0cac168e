// Making a package: archive, file list, detached signature and revocation list, built in a directory beside
// the target and put in place with one rename, so that a failure leaves nothing behind.
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <system_error>

#include "commands.h"
#include "options.h"
#include "package_plan.h"
#include "signing.h"
#include "tool_io.h"
#include "verify/signature_normal.h"

namespace {

constexpr char kUsage[] =
    R"(Usage: update_pack make --script FILE --payload FILE --key FILE --cert FILE [OPTION]...

Makes a directory with the package (script and payload), its signed file list and the revocation list.

  --script FILE     the script that does the update; it is called with the payload's path and
                    succeeds by printing a line that begins with OK
  --payload FILE    what the script gets; repeated, the script is called with the last one's path
  --key FILE        the signer's private key, PEM or DER, without a pass phrase
  --cert FILE       the signer's certificate; certificates behind it are taken as the chain
  --chain FILE      intermediate certificates
  --crl FILE        the revocation list that goes with the package (DER, or PEM with one or more)
  --out DIR         the directory to make; new or empty (default: NAME)
  --name NAME       the package is called NAME.tar.gz (default: update)
  --list NAME       name of the file list (default: filelist.txt); signature and revocation list
                    have the same name with .cms and .crl
  --file FILE       one more file that is listed and stands beside the package; may be repeated
  --ca-type N       family of the root that devices check with: 0, 1 or 2 (default: 0)
  --digest NAME     of the signature: sha256 (default), sha384 or sha512
)";

/// Members in the order given, with the same owner, rights and date whoever packs them and when: the same
/// input makes the same archive. The links let tar find each file under its base name.
bool MakeArchive(const PackagePlan& plan, const std::string& archive, std::string& error) {
  ScratchDir inputs;
  if (!inputs.Make(plan.out + ".in-", error)) return false;
  const char* epoch = getenv("SOURCE_DATE_EPOCH");
  std::vector<std::string> command = {"tar",
                                      "--create",
                                      "--force-local",  // a colon in the name is no host
                                      "--file",
                                      archive,
                                      "--directory",
                                      inputs.path(),
                                      "--use-compress-program=gzip -n",
                                      "--format=gnu",
                                      "--dereference",
                                      "--hard-dereference",
                                      "--owner=0",
                                      "--group=0",
                                      "--numeric-owner",
                                      "--mode=u=rwX,go=rX",
                                      std::string("--mtime=@") + (epoch != nullptr ? epoch : "946684800"),
                                      "--"};
  std::vector<std::string> files = {plan.script};
  files.insert(files.end(), plan.payloads.begin(), plan.payloads.end());
  for (const std::string& file : files) {
    std::error_code fault;
    const std::filesystem::path whole = std::filesystem::canonical(file, fault);
    const std::string name = BaseName(file);
    if (fault || symlink(whole.c_str(), inputs.File(name).c_str()) != 0) {
      error = "cannot read " + file;
      return false;
    }
    command.push_back(name);
  }
  return RunProgram(
      command, [](std::string_view) {}, error);
}

bool AppendEntry(const std::string& path, std::string& list, std::string& error) {
  char digest[kDigestText];
  if (CalcFileHashStr(path.c_str(), digest, sizeof(digest)) != 0) {
    error = "cannot read " + path;
    return false;
  }
  list += "FileName=" + BaseName(path) + "\nSHA256-Digest=" + digest + "\n";
  return true;
}

bool Build(const PackagePlan& plan, const SigningMaterial& material, const ScratchDir& stage,
           std::string& error) {
  const SignatureNames names = NamesOf(plan.list);
  const std::string archive = stage.File(plan.PackageName());
  std::string list = "FileNum=" + std::to_string(1 + plan.more.size()) + "\n";
  if (!MakeArchive(plan, archive, error) || !AppendEntry(archive, list, error)) return false;
  for (const std::string& file : plan.more) {
    const std::string copy = stage.File(BaseName(file));
    if (!CopyToNewFile(file, copy, error) || !AppendEntry(copy, list, error)) return false;
  }
  std::string signature;
  return SignDetached(material, list, plan.digest, signature, error) &&
         WriteWholeFile(stage.File(names.list), list, 0644, error) &&
         WriteWholeFile(stage.File(names.signature), signature, 0644, error) &&
         (plan.crl.empty() || CopyToNewFile(plan.crl, stage.File(names.crl), error));
}

void TellHowToAsk(const PackagePlan& plan) {
  std::error_code fault;
  const std::string directory = std::filesystem::absolute(plan.out, fault).string();
  const SignatureNames names = NamesOf(plan.list);
  printf("%s:\n  package         %s\n  script          %s\n  file list       %s\n  signature       %s\n",
         directory.c_str(), plan.PackageName().c_str(), BaseName(plan.script).c_str(), names.list.c_str(),
         names.signature.c_str());
  if (!plan.crl.empty()) printf("  revocation list %s\n", names.crl.c_str());
  printf("  CA type         %ld\n", plan.caType);
}

}  // namespace

int RunMake(std::span<char* const> arguments) {
  PackagePlan plan;
  std::string caType, error;
  bool help = false;
  const Option options[] = {{"script", &plan.script}, {"payload", &plan.payloads}, {"file", &plan.more},
                            {"key", &plan.key},       {"cert", &plan.cert},        {"chain", &plan.chain},
                            {"crl", &plan.crl},       {"out", &plan.out},          {"name", &plan.name},
                            {"list", &plan.list},     {"digest", &plan.digest},    {"ca-type", &caType},
                            {"help", &help}};
  std::vector<std::string> words;
  if (!ParseOptions(arguments, options, words, error)) return RefuseUsage(error, kUsage);
  if (help) {
    fputs(kUsage, stdout);
    return kExitDone;
  }
  if (!words.empty()) return RefuseUsage("make takes options only, not '" + words[0] + "'", kUsage);
  if (!ParseNumber(caType, "--ca-type", 0, 2, plan.caType, error)) return RefuseUsage(error, kUsage);
  for (const auto& [value, name] :
       {std::pair(&plan.script, "--script"), {&plan.key, "--key"}, {&plan.cert, "--cert"}}) {
    if (value->empty()) return RefuseUsage(std::string(name) + " is missing", kUsage);
  }
  if (!CheckPlan(plan, error)) return Refuse(error);
  std::error_code absent;
  if (std::filesystem::exists(plan.out, absent) && !std::filesystem::is_empty(plan.out, absent)) {
    return Refuse(plan.out + " exists and is not empty; choose another --out");
  }
  SigningMaterial material;
  if (!LoadSigningMaterial(plan.key, plan.cert, plan.chain, plan.crl, material, error)) return Refuse(error);

  ScratchDir stage;
  if (!stage.Make(plan.out + ".part-", error) || !Build(plan, material, stage, error)) return Refuse(error);
  if (!stage.RenameTo(plan.out, error)) return Refuse(error);
  TellHowToAsk(plan);
  return kExitDone;
}
