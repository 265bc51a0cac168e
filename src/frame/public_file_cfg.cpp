/// What the process's XML file tells at start: where the runtime's configuration is, and the component
/// addresses.

#include "frame/public_file_cfg.h"

#include <stdio.h>

#include "frame/module_xml.h"
#include "log/run_log.h"

namespace {

constexpr char kProcessXml[] = "/app_run/app_bin/accountlib/update_active.xml";
constexpr char kRootElement[] = "module_cfg";
constexpr char kLogSource[] = "main";

}  // namespace

uint32_t GetVeltoCfgFromXml(std::string& out) {
  (void)printf("\n======== init xml path:%s ===========\n", kProcessXml);
  Emos::Parser parser;
  uint32_t result = parser.Load(kProcessXml, kRootElement);
  (void)printf("\n======== init xml:%d ===========\n", result);
  if (result != 0) return result;
  result = parser.GetText({"velto", "cfg_file"}, out);
  (void)printf("\n======== parse xml:%d ===========\n", result);
  return result;
}

void GetCompIpFromXml(std::string& localIp, std::string& destIp) {
  Emos::Parser parser;
  uint32_t result = parser.Load(kProcessXml, kRootElement);
  if (result != 0) {
    TOLA_LogPrint(0, 4, kLogSource, __LINE__, "init xml:%d", result);
    return;
  }
  result = parser.GetText({"comp", "local_comp_ip"}, localIp);
  if (result == 0) result = parser.GetText({"comp", "dest_comp_ip"}, destIp);
  if (result != 0) TOLA_LogPrint(0, 4, kLogSource, __LINE__, "parse xml:%d", result);
}
