/// What the process's XML file tells at start: where the runtime's configuration is, and the component
/// addresses.

#include "frame/public_file_cfg.h"

#include <stdio.h>

#include "frame/feature_identity.h"
#include "frame/module_xml.h"
#include "log/run_log.h"
#include "securec.h"

namespace {

constexpr char kRootElement[] = "module_cfg";
constexpr char kLogSource[] = "main";

/// "/app_run/app_bin/accountlib/<process>.xml".
struct ProcessXml {
  ProcessXml() {
    // A name that did not fit would lead to a file that is not there.
    (void)snprintf_s(path, sizeof(path), sizeof(path) - 1, "/app_run/app_bin/accountlib/%s.xml",
                     g_featureIdentity.name);
  }
  char path[256] = {};
};

}  // namespace

uint32_t GetVeltoCfgFromXml(std::string& out) {
  const ProcessXml xml;
  (void)printf("\n======== init xml path:%s ===========\n", xml.path);
  Emos::Parser parser;
  uint32_t result = parser.Load(xml.path, kRootElement);
  (void)printf("\n======== init xml:%d ===========\n", result);
  if (result != 0) return result;
  result = parser.GetText({"velto", "cfg_file"}, out);
  (void)printf("\n======== parse xml:%d ===========\n", result);
  return result;
}

void GetCompIpFromXml(std::string& localIp, std::string& destIp) {
  Emos::Parser parser;
  uint32_t result = parser.Load(ProcessXml().path, kRootElement);
  if (result != 0) {
    TOLA_LogPrint(0, 4, kLogSource, __LINE__, "init xml:%d", result);
    return;
  }
  result = parser.GetText({"comp", "local_comp_ip"}, localIp);
  if (result == 0) result = parser.GetText({"comp", "dest_comp_ip"}, destIp);
  if (result != 0) TOLA_LogPrint(0, 4, kLogSource, __LINE__, "parse xml:%d", result);
}
