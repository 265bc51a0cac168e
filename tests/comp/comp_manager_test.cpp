/// The component manager over the real runtime: start-up from the registration block, addresses, HA.
#include "comp/comp_manager.h"

#include <memory>

#include "comp_fixture.h"
#include "support/temp_dir.h"
#include "velto/dms.h"
#include "velto/kel_cfg.h"

namespace comp_test {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

/// Sockets in a directory of this process; the runtime and the message manager are up.
class Runtime : public ::testing::Environment {
 public:
  void SetUp() override {
    const std::string cfg = dir_.Write("feature.cfg", "dms.dir=" + dir_.File("dms") + "\n");
    ASSERT_EQ(KEL_CfgdbInitByFsldr(cfg.c_str()), 0u);
    ASSERT_EQ(KEL_Start(nullptr), 0u);
    ASSERT_EQ(TOLA_MsgManagerInit(), 0u);
  }

 private:
  support::TempDir dir_;
};
const auto* const g_runtime = ::testing::AddGlobalTestEnvironment(new Runtime);

std::vector<uint32_t> g_started;
uint32_t NoteStart(uint32_t csi) {
  g_started.push_back(csi);
  return 0x10000;  // only the low 16 bits count
}

std::unique_ptr<TOLA_COMP_REG_BLOCK_S> NewBlock() {
  auto block = std::make_unique<TOLA_COMP_REG_BLOCK_S>();
  (void)snprintf(block->product.local.ip, kCompIpSize, "%s", kIp);
  block->product.local.procId = kProcId;
  return block;
}

bool IsKnown(uint32_t csi) {
  return CompManagerImpl::GetInstance().IsComponent(csi);
}

class CompManagerTest : public CompTest {};

TEST_F(CompManagerTest, AStageStartsItsTypesPlatformFirstWithAtMostFourInstances) {
  auto block = NewBlock();
  TOLA_COMP_TYPE_S many = Type("MANY", 1001, Record);
  many.instNum = 6;
  for (uint32_t i = 0; i < kCompInstMax; ++i) many.inst[i] = {1001 + i, NoteStart};
  TOLA_COMP_TYPE_S later = Type("LATER", 1010, Record);
  later.stage = 1;
  later.inst[0].paraReg = NoteStart;
  TOLA_COMP_TYPE_S single = Type("SINGLE", 1012, Record);
  single.inst[0].paraReg = NoteStart;
  types_ = {Type("BROKEN", 1011, nullptr), many, later, single};
  block->platform.typeNum = block->product.typeNum = 2;
  std::copy_n(&types_[0], 2, block->platform.type);
  std::copy_n(&types_[2], 2, block->product.type);
  g_started.clear();
  ASSERT_EQ(TolaOsCompFrameInit(block.get()), 0u);
  TolaOsRegAllComp(block.get(), 0);
  EXPECT_THAT(g_started, ElementsAre(1001, 1002, 1003, 1004, 1012));
  EXPECT_THAT(Logged().TakeAll(),
              AllOf(Contains("comp_manager.cpp: Name:MANY Type=0x3e9, csi=0x3ec, Success, ret=0"),
                    Contains("comp_manager.cpp: Comps kick result 0x1"), Not(Contains(HasSubstr("LATER")))));
  TolaOsRegAllComp(block.get(), 1);
  EXPECT_THAT(g_started, ElementsAre(1001, 1002, 1003, 1004, 1012, 1010));

  for (const uint32_t csi : {1004, 1010}) {
    ASSERT_EQ(TolaCompMsgSend(csi, NewMsg(1001, 5, 6, "x")), 0u);
    EXPECT_EQ(Arrived().Take().destination, csi) << "started but not delivered to";
  }
}

uint32_t Refuse() {
  return 0x30007;
}
uint32_t FailStageTwo(uint32_t stage) {
  return stage == 2 ? 1 : 0;
}
uint32_t RefusePara(uint32_t) {
  return 0x10009;
}

TEST_F(CompManagerTest, TheFirstFailureEndsATypesStart) {
  using Spoil = void (*)(TOLA_COMP_TYPE_S&);
  const std::tuple<const char*, Spoil, uint32_t, const char*, bool> cases[] = {
      {"before", [](TOLA_COMP_TYPE_S& t) { t.beforeReg = Refuse; }, 7,
       "Comp type start up failed type=0x44d, name=before, ret=0x7", false},
      {"name", [](TOLA_COMP_TYPE_S& t) { memset(t.name, 'n', sizeof(t.name)); }, 1,
       "Comp type reg comp failed type=0x44e, name=nnnnnnnnnnnnnnnnnnnnnnnn, ret=0x1", false},
      {"version", [](TOLA_COMP_TYPE_S& t) { memset(t.version, 'v', sizeof(t.version)); }, 1,
       "strcpy_s ver fail", false},
      {"entry", [](TOLA_COMP_TYPE_S& t) { t.msgProc = nullptr; }, 1, "reg fail(0x601)! typeId[1104]", false},
      {"parameter", [](TOLA_COMP_TYPE_S& t) { t.inst[1].paraReg = RefusePara; }, 9,
       "Comp instance set Para failed type=0x451, name=parameter, csi = 0x9951, ret=0x9", true},
      {"constructor", [](TOLA_COMP_TYPE_S& t) { t.constructor = FailStageTwo; }, 1,
       "stage[2],csi[1106],type[1106],fail(0x607)", false},
      {"after", [](TOLA_COMP_TYPE_S& t) { t.afterStart = Refuse; }, 7,
       "Comp type start up failed type=0x453, name=after, ret=0x7", true},
  };
  uint32_t id = 1101;
  for (const auto& [name, spoil, result, line, firstRuns] : cases) {
    SCOPED_TRACE(name);
    TOLA_COMP_TYPE_S type = Type(name, id, Record);
    type.instNum = 2;
    type.inst[1].csi = id + 0x9500;
    spoil(type);
    (void)Logged().TakeAll();
    EXPECT_EQ(Start(type), result);
    EXPECT_THAT(Logged().TakeAll(), Contains(HasSubstr(line)));
    EXPECT_EQ(TolaCompMsgSend(id, NewMsg(1, 1, 1, "")) == 0, firstRuns) << "what ran before stays";
    if (firstRuns) (void)Arrived().Take();
    ++id;
  }
}

uint32_t g_destroyed = 0;
uint32_t NoteEnd() {
  ++g_destroyed;
  return 0;
}

TEST_F(CompManagerTest, ADestroyedInstanceIsForgotten) {
  TOLA_COMP_TYPE_S type = Type("MORTAL", 1301, Record);
  type.destructor = NoteEnd;
  g_destroyed = 0;
  ASSERT_EQ(Start(type), 0u);
  CompManagerImpl& manager = CompManagerImpl::GetInstance();
  int mine = 0;
  ASSERT_EQ(TolaCompSetPara(1301, &mine), 0u);
  EXPECT_EQ(TolaCompGetPara(1301), &mine);
  EXPECT_NE(manager.DeleteCompType(1301), 0u) << "the type still has an instance";
  ASSERT_EQ(manager.CompDestroy(1301), 0u);
  EXPECT_EQ(g_destroyed, 1u);
  EXPECT_FALSE(IsKnown(1301));
  EXPECT_EQ(TolaCompGetPara(1301), nullptr) << "a later instance would find another one's data";
  EXPECT_EQ(manager.DeleteCompType(1301), 0u);
}

TEST_F(CompManagerTest, InitRefusesWhatIsNoProcess) {
  TOLA_COMP_DST_PROC_S local = Process(0, {1401});
  EXPECT_EQ(TolaCompInit(&local, 0, nullptr), 1u);
  EXPECT_EQ(TolaCompInit(&local, 2, nullptr), 1u);
  EXPECT_THAT(Logged().TakeAll(), ElementsAre("comp_manager.cpp: invalid procId(0)",
                                              "comp_manager.cpp: dstNum[2] but dstProc is null"));
  local = Process(kProcId, {1402});
  memset(local.ip, '1', sizeof(local.ip));
  EXPECT_EQ(TolaCompInit(&local, 0, nullptr), 1u) << "an address without end was read";
  EXPECT_FALSE(IsKnown(1401) || IsKnown(1402));
  const TOLA_COMP_DST_PROC_S bad = Process(500, {1403}, "no address");
  local = Process(kProcId, {});
  EXPECT_EQ(TolaCompInit(&local, 1, &bad), kDmsErrPara);
}

TEST_F(CompManagerTest, TheFirst32DestinationsOfBothSetsCount) {
  auto block = NewBlock();
  block->product.dstNum = block->platform.dstNum = 20;
  for (uint32_t i = 0; i < 20; ++i) {
    block->product.dst[i] = Process(200 + i, {2000 + i});
    block->platform.dst[i] = Process(220 + i, {2020 + i});
  }
  ASSERT_EQ(TolaOsCompFrameInit(block.get()), 0u);
  for (uint32_t i = 0; i < 40; ++i) {
    EXPECT_EQ(IsKnown(2000 + i), i < 32) << i;
    const TOLA_COMP_PROC_S process = Address(200 + i);
    EXPECT_EQ(TolaDelCompDstProcInfo(&process) == 0, i < 32) << i;
    EXPECT_FALSE(IsKnown(2000 + i)) << "removal left an address behind";
  }
}

TEST_F(CompManagerTest, AnAddedProcessMakesItsComponentsKnownAndTakesNoLocalOne) {
  ASSERT_EQ(Start(Type("LOCAL", 1501, Record)), 0u);
  const TOLA_COMP_DST_PROC_S peer = Process(400, {1501, 1502});
  const int secInfo = 1;
  EXPECT_EQ(TolaAddCompDstProcInfoWithSecInfo(&peer, &secInfo), 1u);
  EXPECT_FALSE(IsKnown(1502)) << "a process that needs a secured link is reached in the clear";
  ASSERT_EQ(TolaAddCompDstProcInfoWithSecInfo(&peer, nullptr), 0u);
  EXPECT_TRUE(IsKnown(1502));
  EXPECT_EQ(TolaCompMsgSend(1502, NewMsg(1501, 1, 1, "x")), kDmsErrNoPeer) << "nobody listens there";
  EXPECT_THAT(Logged().TakeAll(), Contains("comp_msg.cpp: 0x5dd send msg 0x1 to 0x5de fail:0x503"));
  ASSERT_EQ(TolaCompMsgSend(1501, NewMsg(1501, 1, 1, "here")), 0u);
  EXPECT_EQ(Arrived().Take().data, "here") << "another process took a local instance away";

  const TOLA_COMP_PROC_S peerAddress = Address(400);
  const TOLA_COMP_PROC_S own = Address(kProcId);
  EXPECT_EQ(TolaDelCompDstProcInfo(&peerAddress), 0u);
  EXPECT_NE(TolaDelCompDstProcInfo(&own), 0u);
  EXPECT_FALSE(IsKnown(1502));
  EXPECT_TRUE(IsKnown(1501));
}

std::vector<uint32_t> g_announced;

TEST_F(CompManagerTest, EachLocalComponentIsAnnounced) {
  g_announced.clear();
  TolaCompRegIdAddNotify([](uint32_t csi) { g_announced.push_back(csi); });
  const TOLA_COMP_DST_PROC_S local = Process(kProcId, {1701, 1702});
  const TOLA_COMP_DST_PROC_S peer = Process(402, {1703});
  ASSERT_EQ(TolaCompInit(&local, 1, &peer), 0u);
  TolaCompRegIdAddNotify(nullptr);
  EXPECT_THAT(g_announced, ElementsAre(1701, 1702));
  TOLA_COMP_PROC_S own{};
  ASSERT_EQ(TolaCompGetLocalProcInfo(&own), 0u);
  EXPECT_STREQ(own.ip, kIp);
  EXPECT_EQ(own.procId, kProcId);
}

/// Says which expectation of a child process failed, since only its exit status comes back.
#define CHILD_EXPECT(condition) \
  if (!(condition)) (fprintf(stderr, "line %d: %s\n", __LINE__, #condition), exit(1))

[[noreturn]] void PairedProcess() {
  constexpr uint32_t kInstance = 0x21801;  // more than the 16 bits of a platform module
  CHILD_EXPECT(MakeCompCpi(4181) == 0x80001055);
  CHILD_EXPECT(GetDstDmsHaState("10.0.0.1", "10.0.0.2") == 2);
  TOLA_CompDefaultHaStateSet(1);
  CHILD_EXPECT(MakeCompCpi(4181) == 0x80001055);
  TOLA_EnableCompHaState();
  CHILD_EXPECT(MakeCompCpi(4181) == 0x90001055);
  CHILD_EXPECT(GetDstDmsHaState("10.0.0.1", "10.0.0.1") == 1);
  CHILD_EXPECT(GetDstDmsHaState("10.0.0.1", "10.0.0.2") == 0);

  const TOLA_COMP_DST_PROC_S local = Process(kProcId, {kInstance});
  const TOLA_COMP_DST_PROC_S dst[] = {Process(500, {1802}, "no address"), Process(501, {1803}, "10.0.0.2")};
  CHILD_EXPECT(TolaCompInit(&local, 2, dst) == 0);  // the failing one is skipped
  CompAddr addr{};
  CompManagerImpl& manager = CompManagerImpl::GetInstance();
  CHILD_EXPECT(manager.GetCompAddr(kInstance, addr) == 0 && addr.haState == 1);
  CHILD_EXPECT(manager.GetCompAddr(1803, addr) == 0 && addr.haState == 0);
  TOLA_COMP_TYPE_S type = Type("HA", kInstance, Record);
  CHILD_EXPECT(TolaOsKickOffComps(&type) == 0);
  CHILD_EXPECT(TolaCompMsgSend(0x10000000 + kInstance, NewMsg(0x80000000 + kInstance, 1, 1, "ha")) == 0);
  CHILD_EXPECT(Arrived().Take().data == "ha");
  TOLA_CompDefaultHaStateSet(2);
  CHILD_EXPECT(MakeCompCpi(4181) == 0x80001055);
  CHILD_EXPECT(AddIccCompSchAttr() == 0 && AddWifiCompSchAttr() == 0);
  CHILD_EXPECT(AddIccCompSchAttr() == kRtfErrExists);  // under its own name, and once
  exit(0);
}

TEST(CompAddressTest, HighAvailabilityChangesAddressesAndStates) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // in a process of its own: HA is never switched off again
  EXPECT_EXIT(PairedProcess(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace comp_test
