/// Runs on a board: what the frame reads at fixed paths.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <memory>
#include <string>

#include "frame/feature_identity.h"
#include "frame/init_ha_manager_comp.h"
#include "frame/module_xml.h"
#include "frame/public_file_cfg.h"

const FeatureIdentity g_featureIdentity = {"update_active", 1056, nullptr};

namespace {

constexpr char kXml[] = "/app_run/app_bin/accountlib/update_active.xml";
constexpr char kHaInfo[] = "/home/sys_cfg/ha_init_info.tola";

void WriteFile(const char* path, const std::string& content) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

TEST(ProcessXml, ValuesAreTrimmedOfSpacesAndWhatIsMissingKeepsWhatTheCallerHad) {
  const struct {
    const char* xml;
    uint32_t result;
    const char* path;
    const char* local;
    const char* dest;
  } cases[] = {
      {"<module_cfg><other/><velto><cfg_file>  /a b/c.cfg </cfg_file></velto><comp>"
       "<local_comp_ip></local_comp_ip><dest_comp_ip>\t10.0.0.2</dest_comp_ip></comp></module_cfg>",
       0, "/a b/c.cfg", "", "\t10.0.0.2"},
      {"<module_cfg><comp><dest_comp_ip>10.0.0.2</dest_comp_ip></comp></module_cfg>", Emos::kXmlErrElement,
       "had", "had", "had"},  // the local address failed, so the other is not read
      {"<other/>", Emos::kXmlErrElement, "had", "had", "had"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.xml);
    WriteFile(kXml, c.xml);
    std::string xmlPath = "had", local = "had", dest = "had";
    EXPECT_EQ(GetVeltoCfgFromXml(xmlPath), c.result);
    GetCompIpFromXml(local, dest);
    EXPECT_EQ(xmlPath, c.path);
    EXPECT_EQ(local, c.local);
    EXPECT_EQ(dest, c.dest);
  }
  std::string path;
  WriteFile(kXml, "<module_cfg><velto>");
  EXPECT_NE(GetVeltoCfgFromXml(path), 0u);
  unlink(kXml);
}

TEST(HaInfo, ThePairingsAddressIsTakenOnlyWhenItIsUsed) {
  constexpr int kNone = -1;
  const struct {
    const char* name;
    const char* localIp;  ///< empty: the file of the pairing is short
    uint16_t haSwitch;
    int flag;      ///< of the file that tells whether the address is used, before
    bool dynamic;  ///< the process has the marker for a process id
    int flagAfter;
    bool used;
  } cases[] = {
      {"short file", "", 1, 1, false, 1, false},
      {"no address", "0.0.0.0", 1, 1, false, 1, false},
      {"no flag", "10.1.2.3", 1, kNone, false, kNone, false},
      {"flag 0", "10.1.2.3", 1, 0, false, 0, false},
      {"switched off", "10.1.2.3", 0, 1, true, 0, false},
      {"used", "10.1.2.3", 1, 1, false, 1, true},  // and from here on HA stays on
      {"switched on", "10.1.2.3", 1, kNone, true, 1, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const HaInitInfo info = {inet_addr(c.localIp), inet_addr("10.1.2.4"), c.haSwitch, 1};
    WriteFile(kHaInfo,
              *c.localIp == '\0' ? "short" : std::string(reinterpret_cast<const char*>(&info), sizeof(info)));
    unlink(HA_IP_ENABLE_INFO);
    if (c.flag != kNone) (void)StoreHAIpEnableInfo(static_cast<uint16_t>(c.flag));  // looked at below
    const auto block = std::make_unique<TOLA_COMP_REG_BLOCK_S>();
    ASSERT_EQ(TOLA_OsRegProductCompInitInfo(block.get()), 0u);
    const TOLA_COMP_REG_SET_S& set = block->product;
    EXPECT_EQ(set.local.procId, 104u);
    if (c.dynamic) block->product.local.procId = 100;

    FlushLocalProcStaticInfo(block.get());
    TolaOsUpdateDstProcInfo(block.get());
    ASSERT_EQ(set.dstNum, 1u);
    EXPECT_EQ(set.dst[0].addr[0].csi, 4150u);
    EXPECT_STREQ(set.local.ip, c.used ? "10.1.2.3" : "127.0.0.1");
    EXPECT_STREQ(set.dst[0].ip, c.used ? "10.1.2.3" : "127.0.0.1");
    EXPECT_EQ(set.dst[0].procId, c.used ? 0x10203u : 100u) << "0x10000 and the low half of 10.1.2.3";
    EXPECT_EQ(IsCompHaEnable(), c.used);
    EXPECT_EQ(MakeCompCpi(4181), c.used ? 0x90001055u : 0x80001055u);
    uint16_t flag = 0;
    EXPECT_EQ(GetHAIpEnableInfo(&flag) == 0 ? flag : kNone, c.flagAfter);
  }
  struct stat info = {};
  ASSERT_EQ(stat(HA_IP_ENABLE_INFO, &info), 0);
  EXPECT_EQ(info.st_size, 2);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
}

}  // namespace
