// update_pack: makes update packages, shows what is in one and whether this build would accept it, and keeps
// a development CA to sign them with.
#include <stdio.h>
#include <string.h>

#include "cms/openssl_owners.h"
#include "commands.h"

namespace {

constexpr char kUsage[] =
    R"(Usage: update_pack make ...       make and sign a package
       update_pack inspect DIR    show what is in one, and whether this build would accept it
       update_pack secure-boot .. make the signed file list of an installed application
       update_pack dev-pki ...    keep a development certification authority
       update_pack COMMAND --help

Exit status: 0 done or accepted, 1 refused or failed, 2 wrong usage.
)";

struct Command {
  const char* name;
  int (*run)(std::span<char* const>);
};
constexpr Command kCommands[] = {
    {"make", RunMake}, {"inspect", RunInspect}, {"secure-boot", RunSecureBoot}, {"dev-pki", RunDevPki}};

}  // namespace

int Refuse(const std::string& text) {
  fprintf(stderr, "update_pack: %s\n", text.c_str());
  return kExitRefused;
}

int RefuseUsage(const std::string& text, const char* usage) {
  fprintf(stderr, "update_pack: %s\n\n%s", text.c_str(), usage);
  return kExitUsage;
}

void Note(const std::string& text) {
  fprintf(stderr, "update_pack: note: %s\n", text.c_str());
}

int main(int argc, char** argv) {
  if (argc < 2) return RefuseUsage("name a command", kUsage);
  if (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0) {
    fputs(kUsage, stdout);
    return kExitDone;
  }
  if (!cms::InitCrypto()) return Refuse("libcrypto cannot be used");
  for (const Command& command : kCommands) {
    if (strcmp(argv[1], command.name) == 0) return command.run({argv + 2, static_cast<size_t>(argc - 2)});
  }
  return RefuseUsage(std::string("there is no command '") + argv[1] + "'", kUsage);
}
