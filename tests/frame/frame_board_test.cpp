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

TEST(ProcessXml, ValuesAreTrimmedOfSpacesAloneAndMayBeEmpty) {
  WriteFile(kXml,
            "<module_cfg><other/><velto><cfg_file>  /a b/c.cfg </cfg_file></velto><comp>"
            "<local_comp_ip></local_comp_ip><dest_comp_ip>\t10.0.0.2</dest_comp_ip></comp></module_cfg>");
  std::string path;
  EXPECT_EQ(GetVeltoCfgFromXml(path), 0u);
  EXPECT_EQ(path, "/a b/c.cfg");
  std::string local = "127.0.0.1";
  std::string dest = "127.0.0.1";
  GetCompIpFromXml(local, dest);
  EXPECT_EQ(local, "");
  EXPECT_EQ(dest, "\t10.0.0.2");
}

TEST(ProcessXml, MissingElementsKeepWhatTheCallerHad) {
  WriteFile(kXml, "<module_cfg><comp><dest_comp_ip>10.0.0.2</dest_comp_ip></comp></module_cfg>");
  std::string path = "kept";
  EXPECT_EQ(GetVeltoCfgFromXml(path), Emos::kXmlErrElement);
  EXPECT_EQ(path, "kept");
  std::string local = "127.0.0.1";
  std::string dest = "127.0.0.1";
  GetCompIpFromXml(local, dest);
  EXPECT_EQ(dest, "127.0.0.1") << "read although the local address failed";
  WriteFile(kXml, "<other/>");
  EXPECT_EQ(GetVeltoCfgFromXml(path), Emos::kXmlErrElement);
  WriteFile(kXml, "<module_cfg><velto>");
  EXPECT_NE(GetVeltoCfgFromXml(path), 0u);
  Emos::Parser unloaded;
  EXPECT_EQ(unloaded.GetText({"comp"}, path), Emos::kXmlErrNotLoaded);
}

class HaInfoTest : public testing::Test {
 protected:
  void SetUp() override {
    unlink(kHaInfo);
    unlink(HA_IP_ENABLE_INFO);
    unlink(kXml);
    ASSERT_EQ(TOLA_OsRegProductCompInitInfo(block_.get()), 0u);
  }

  void WriteHa(const char* localIp, uint16_t haSwitch, uint16_t state) {
    const HaInitInfo info = {inet_addr(localIp), inet_addr("10.1.2.4"), haSwitch, state};
    WriteFile(kHaInfo, std::string(reinterpret_cast<const char*>(&info), sizeof(info)));
  }

  std::unique_ptr<TOLA_COMP_REG_BLOCK_S> block_ = std::make_unique<TOLA_COMP_REG_BLOCK_S>();
};

TEST_F(HaInfoTest, WithoutAPairingTheBlockStaysAsTheProductFilledIt) {
  WriteFile(kHaInfo, "short");
  FlushLocalProcStaticInfo(block_.get());
  WriteHa("0.0.0.0", 1, 1);
  FlushLocalProcStaticInfo(block_.get());
  TolaOsUpdateDstProcInfo(block_.get());
  const TOLA_COMP_REG_SET_S& set = block_->product;
  EXPECT_STREQ(set.local.ip, "127.0.0.1");
  EXPECT_EQ(set.local.procId, 104u);
  ASSERT_EQ(set.dstNum, 1u);
  EXPECT_STREQ(set.dst[0].ip, "127.0.0.1");
  EXPECT_EQ(set.dst[0].procId, 100u);
  EXPECT_EQ(set.dst[0].addr[0].csi, 4150u);
  EXPECT_FALSE(IsCompHaEnable());
}

TEST_F(HaInfoTest, UnusedAddressChangesNothing) {
  WriteHa("10.1.2.3", 1, 1);
  FlushLocalProcStaticInfo(block_.get());  // no enable file: not used
  TolaOsUpdateDstProcInfo(block_.get());
  EXPECT_STREQ(block_->product.local.ip, "127.0.0.1");
  EXPECT_STREQ(block_->product.dst[0].ip, "127.0.0.1");
  EXPECT_FALSE(IsCompHaEnable());
}

TEST_F(HaInfoTest, UsedAddressReplacesAddressesAndTheMarker) {
  WriteHa("10.1.2.3", 1, 1);
  ASSERT_EQ(StoreHAIpEnableInfo(1), 0u);
  struct stat info = {};
  ASSERT_EQ(stat(HA_IP_ENABLE_INFO, &info), 0);
  EXPECT_EQ(info.st_size, 2);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  FlushLocalProcStaticInfo(block_.get());
  TolaOsUpdateDstProcInfo(block_.get());
  EXPECT_STREQ(block_->product.local.ip, "10.1.2.3");
  EXPECT_STREQ(block_->product.dst[0].ip, "10.1.2.3");
  EXPECT_EQ(block_->product.dst[0].procId, 0x10203u) << "0x10000 and the low half of 10.1.2.3";
  EXPECT_TRUE(IsCompHaEnable());
  EXPECT_EQ(MakeCompCpi(4181), 0x90001055u);
}

TEST_F(HaInfoTest, ProcessWithTheMarkerStoresWhetherItsAddressIsUsed) {
  block_->product.local.procId = 100;
  WriteHa("10.1.2.3", 0, 1);
  FlushLocalProcStaticInfo(block_.get());
  uint16_t used = 9;
  EXPECT_EQ(GetHAIpEnableInfo(&used), 0u);
  EXPECT_EQ(used, 0u);
  EXPECT_STREQ(block_->product.local.ip, "127.0.0.1");
  WriteHa("10.1.2.3", 1, 1);
  FlushLocalProcStaticInfo(block_.get());
  EXPECT_EQ(GetHAIpEnableInfo(&used), 0u);
  EXPECT_EQ(used, 1u);
  EXPECT_STREQ(block_->product.local.ip, "10.1.2.3");
}

TEST_F(HaInfoTest, AddressTextThatDoesNotFitFailsTheRegistration) {
  WriteFile(kXml,
            "<module_cfg><comp><local_comp_ip>100.100.100.1000</local_comp_ip><dest_comp_ip>1.1.1.1"
            "</dest_comp_ip></comp></module_cfg>");
  EXPECT_EQ(TOLA_OsRegProductCompInitInfo(block_.get()), 1u);
}

}  // namespace
