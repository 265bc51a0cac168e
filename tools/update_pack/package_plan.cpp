#include "package_plan.h"

#include <algorithm>
#include <set>

#include "commands.h"
#include "tool_io.h"

namespace {

constexpr char kBankSwitchScript[] = "monitor_update.sh";  // runs on the package itself and needs no payload

bool Fail(std::string& error, const std::string& text) {
  error = text;
  return false;
}

bool CheckName(const std::string& name, const char* what, std::string& error) {
  if (!IsPlainFileName(name)) {
    return Fail(error,
                std::string("the ") + what + "'s name '" + name +
                    "' would be refused on the device; rename it: letters, digits, '.', '_' and '-' only, "
                    "beginning with a letter or a digit");
  }
  if (name.size() > kListNameLimit) {
    return Fail(error, std::string("the ") + what + "'s name '" + name +
                           "' has more than 128 characters; shorten it");
  }
  return true;
}

bool CheckFile(const std::string& path, const char* what, std::string& error) {
  if (!IsRegularFile(path)) return Fail(error, "there is no file " + path + "; name the " + what);
  return CheckName(BaseName(path), what, error);
}

void NoteScriptWithoutOk(const std::string& path) {
  std::string text, ignored;  // a script of more than 2 MB is not looked through
  if (!ReadSmallFile(path, text, ignored)) return;
  for (size_t i = 0; i + 1 < text.size(); ++i) {
    if ((text[i] == 'O' || text[i] == 'o') && (text[i + 1] == 'K' || text[i + 1] == 'k')) return;
  }
  Note(path + " never prints OK; the update succeeds only when a line of its output begins with OK");
}

bool CheckScript(const std::string& path, std::string& error) {
  if (!CheckFile(path, "script", error)) return false;
  std::string text, ignored;
  if (ReadSmallFile(path, text, ignored) && text.empty())
    return Fail(error, path + " is empty; a script must do something");
  NoteScriptWithoutOk(path);
  return true;
}

bool CheckPayloads(const PackagePlan& plan, std::string& error) {
  const std::string script = BaseName(plan.script);
  std::set<std::string> members = {script};
  for (const std::string& payload : plan.payloads) {
    if (!CheckFile(payload, "payload", error)) return false;
    const std::string name = BaseName(payload);
    if (!members.insert(name).second)
      return Fail(error, "two members of the package are called " + name + "; rename one");
    if (name.find(script) != std::string::npos) {
      return Fail(error, "the payload's name " + name + " holds the script's name " + script +
                             ", so the device would take it for the script; rename one");
    }
  }
  if (plan.payloads.empty() && !script.starts_with(kBankSwitchScript)) {
    return Fail(error, "name a payload with --payload; the script is called with its path");
  }
  return true;
}

/// Package, further files and the three files of the signature share a directory.
bool CheckOutputNames(const PackagePlan& plan, std::string& error) {
  const SignatureNames names = NamesOf(plan.list);
  std::set<std::string> taken;
  std::vector<std::string> all = {plan.PackageName(), names.list, names.signature, names.crl};
  for (const std::string& file : plan.more) {
    if (!CheckFile(file, "file", error)) return false;
    all.push_back(BaseName(file));
  }
  for (const std::string& name : all) {
    if (!CheckName(name, "file", error)) return false;
    if (!taken.insert(name).second)
      return Fail(error, "two files of the result are called " + name + "; rename one");
  }
  if (1 + plan.more.size() > kListEntryLimit) {
    return Fail(error, "a file list has at most 255 entries, not " + std::to_string(1 + plan.more.size()) +
                           "; put files into the payload instead");
  }
  return true;
}

}  // namespace

bool CheckPlan(PackagePlan& plan, std::string& error) {
  if (plan.name.empty()) plan.name = "update";
  if (plan.list.empty()) plan.list = "filelist.txt";
  if (plan.digest.empty()) plan.digest = "sha256";
  if (plan.out.empty()) plan.out = plan.name;
  while (plan.out.size() > 1 && plan.out.back() == '/') plan.out.pop_back();
  if (plan.digest != "sha256" && plan.digest != "sha384" && plan.digest != "sha512") {
    return Fail(error, "--digest is sha256, sha384 or sha512, not " + plan.digest);
  }
  return CheckScript(plan.script, error) && CheckPayloads(plan, error) && CheckOutputNames(plan, error);
}
