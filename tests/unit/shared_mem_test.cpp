// Records in named shared memory: who creates them, which copy a reader sees, what is refused, and
// when the mutex is held. Other objects and threads stand in for other processes.
#include "common/shared_mem_obj.h"

#include <gtest/gtest.h>
#include <memoryapi.h>

#include <cstring>
#include <optional>
#include <string>

#ifndef _WIN32
#include "port/shared/faults.h"
#endif
#include "tests/support/log_capture.h"
#include "tests/support/log_texts.h"
#include "tests/support/threads.h"

namespace {

using common::kOpenForReading;
using common::kOpenForWriting;
using common::Shared_mem_closer;
using common::Shared_mem_obj;
using common::Shared_mem_ptr;
using common::SharedMemHeader;
using common::u32;

#pragma pack(push, 1)
struct Record {
  SharedMemHeader header;
  u32 value = 0;
};
#pragma pack(pop)
static_assert(sizeof(Record) == 16);

class SharedMem : public testing::Test {
 protected:
  SharedMem() {
    const testing::TestInfo& info = *testing::UnitTest::GetInstance()->current_test_info();
    const std::string own = info.name() + std::string("_") + std::to_string(GetCurrentProcessId());
    name_ = "vyr_unit_mem_" + own;
    mutex_name_ = "vyr_unit_mutex_" + own;
    keeps_mutex_.emplace(mutex_name_);
  }

  Shared_mem_obj Plain(u32 size = sizeof(Record)) {
    return Shared_mem_obj(name_, size, mutex_name_, false);
  }
  Shared_mem_obj Double(u32 size = sizeof(Record)) {
    return Shared_mem_obj(name_, size, mutex_name_, true);
  }

  bool MutexIsFree() {
    bool got = false;
    test::RunThread([&] {
      common::NamedMutex mutex(mutex_name_);
      got = mutex.try_lock();
      if (got) mutex.unlock();
    });
    return got;
  }

  std::string name_, mutex_name_;
  // A mutex without a handle is made anew, and free whoever owned it before: this keeps it open.
  std::optional<common::NamedMutex> keeps_mutex_;
};

// The mapping's bytes as another program sees them.
class RawView {
 public:
  RawView(const std::string& name, u32 size)
      : mapping_(OpenFileMappingA(FILE_MAP_ALL_ACCESS, FALSE, name.c_str())),
        view_(
            static_cast<unsigned char*>(MapViewOfFile(mapping_, FILE_MAP_ALL_ACCESS, 0, 0, size))) {
  }
  ~RawView() {
    if (view_ != nullptr) UnmapViewOfFile(view_);
    if (mapping_ != nullptr) CloseHandle(mapping_);
  }
  bool exists() const { return view_ != nullptr; }
  u32 Get(u32 offset) const {
    u32 value = 0;
    std::memcpy(&value, view_ + offset, sizeof value);
    return value;
  }
  void Set(u32 offset, u32 value) { std::memcpy(view_ + offset, &value, sizeof value); }

 private:
  HANDLE mapping_;
  unsigned char* view_;
};

u32 ValueOf(void* record) { return static_cast<const Record*>(record)->value; }

void Write(Shared_mem_obj& object, u32 value) {
  void* const record = object.Open(kOpenForWriting, true);
  ASSERT_NE(record, nullptr);
  static_cast<Record*>(record)->value = value;
  object.Close();
}

u32 Read(Shared_mem_obj& object) {
  void* const record = object.Open(kOpenForReading, true);
  const u32 value = record != nullptr ? ValueOf(record) : 0xdeadu;
  object.Close();
  return value;
}

TEST_F(SharedMem, NewPlainRecordHasItsHeaderAndZeros) {
  const Shared_mem_obj object = Plain();
  const RawView raw(name_, 16);
  ASSERT_TRUE(raw.exists());
  EXPECT_EQ(raw.Get(0), 16u);
  EXPECT_EQ(raw.Get(4), 1u);
  EXPECT_EQ(raw.Get(8), 36u);
  EXPECT_EQ(raw.Get(12), 0u);
}

TEST_F(SharedMem, NewDoubleRecordHasAHeaderInEachCopy) {
  const Shared_mem_obj object = Double();
  const RawView raw(name_, 36);
  ASSERT_TRUE(raw.exists());
  EXPECT_EQ(raw.Get(0), 0u);
  for (const u32 copy : {4u, 20u}) {
    EXPECT_EQ(raw.Get(copy), 16u);
    EXPECT_EQ(raw.Get(copy + 4), 1u);
    EXPECT_EQ(raw.Get(copy + 8), 36u);
    EXPECT_EQ(raw.Get(copy + 12), 0u);
  }
}

TEST_F(SharedMem, SecondObjectFindsTheMappingAndLeavesItsContent) {
  Shared_mem_obj first = Plain();
  Write(first, 17);
  Shared_mem_obj second = Plain();
  EXPECT_EQ(Read(second), 17u);
}

TEST_F(SharedMem, ExistsCreatesNothing) {
  EXPECT_FALSE(Shared_mem_obj::Exists(name_));
  EXPECT_FALSE(Shared_mem_obj::Exists(name_));
  {
    const Shared_mem_obj object = Plain();
    EXPECT_TRUE(Shared_mem_obj::Exists(name_));
  }
  EXPECT_FALSE(Shared_mem_obj::Exists(name_));  // it lives as long as a handle is open
}

TEST_F(SharedMem, PlainRecordHoldsItsMutexFromOpenToClose) {
  Shared_mem_obj object = Plain();
  EXPECT_TRUE(MutexIsFree());
  object.Open(kOpenForReading, true);
  EXPECT_FALSE(MutexIsFree());
  object.Close();
  EXPECT_TRUE(MutexIsFree());
}

// Where its mutex cannot exist, the threads of a process have to take care of each other.
TEST_F(SharedMem, SaysWhetherAMutexGuardsIt) {
  EXPECT_TRUE(Plain().guarded());
  const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, (mutex_name_ + "_event").c_str());
  EXPECT_FALSE(Shared_mem_obj(name_, 16, mutex_name_ + "_event", false).guarded());
  CloseHandle(event);
}

TEST_F(SharedMem, FailedOpenHoldsTheMutexUntilClose) {
  Shared_mem_obj object = Plain();
  RawView(name_, 16).Set(8, 37);
  EXPECT_EQ(object.Open(kOpenForReading, true), nullptr);
  EXPECT_FALSE(MutexIsFree());
  object.Close();
  EXPECT_TRUE(MutexIsFree());
}

TEST_F(SharedMem, OpenAfterAFailedCheckTakesTheMutexTwice) {
  Shared_mem_obj object = Plain();
  RawView(name_, 16).Set(8, 37);
  EXPECT_EQ(object.Open(kOpenForReading, true), nullptr);
  EXPECT_NE(object.Open(kOpenForReading, false), nullptr);
  object.Close();
  EXPECT_FALSE(MutexIsFree());
  object.Close();  // releases the second, though no view is left
  EXPECT_TRUE(MutexIsFree());
}

TEST_F(SharedMem, DestructionClosesAnOpenView) {
  {
    Shared_mem_obj object = Plain();
    object.Open(kOpenForReading, true);
  }
  EXPECT_TRUE(MutexIsFree());
}

TEST_F(SharedMem, MutexOfADeadProcessIsTakenOver) {
  Shared_mem_obj object = Plain();
  test::RunThread([&] { common::NamedMutex(mutex_name_).lock(); });
  EXPECT_NE(object.Open(kOpenForReading, true), nullptr);
  object.Close();
  EXPECT_TRUE(MutexIsFree());
}

TEST_F(SharedMem, DoubleRecordTakesNoMutex) {
  Shared_mem_obj object = Double();
  object.Open(kOpenForWriting, true);
  EXPECT_TRUE(MutexIsFree());
  object.Close();
}

TEST_F(SharedMem, RecordOfAnotherVersionIsRefusedAndLogged) {
  struct {
    u32 offset, value;
    const char* numbers;
  } const rows[] = {
      {8, 37, "shared_mem_size=16, major_ver=1, minor_ver=37"},
      {8, 35, "shared_mem_size=16, major_ver=1, minor_ver=35"},
      {4, 2, "shared_mem_size=16, major_ver=2, minor_ver=36"},
      {0, 17, "shared_mem_size=17, major_ver=1, minor_ver=36"},
  };
  Shared_mem_obj object = Plain();
  for (const auto& row : rows) {
    test::LogCapture log;
    RawView raw(name_, 16);
    const u32 right = raw.Get(row.offset);
    raw.Set(row.offset, row.value);
    EXPECT_EQ(object.Open(kOpenForReading, true), nullptr);
    object.Close();
    EXPECT_TRUE(log.Contains(test::kRegionFailed + name_ +
                             ",size=16) open failed,structure not match, " + row.numbers + "\n"))
        << log.Text();
    EXPECT_NE(object.Open(kOpenForReading, false), nullptr);  // unchecked, the address comes back
    object.Close();
    raw.Set(row.offset, right);
  }
  EXPECT_NE(object.Open(kOpenForReading, true), nullptr);
  object.Close();
}

TEST_F(SharedMem, RecordTooShortForAHeaderShowsNoNumbers) {
  test::LogCapture log;
  Shared_mem_obj object = Plain(8);
  RawView(name_, 8).Set(4, 2);
  EXPECT_EQ(object.Open(kOpenForReading, true), nullptr);
  object.Close();
  EXPECT_TRUE(
      log.Contains("size=8) open failed,structure not match, "
                   "shared_mem_size=-1, major_ver=-1, minor_ver=-1\n"))
      << log.Text();
}

// Its version has no place, so nothing can say that it is the right one.
TEST_F(SharedMem, RecordTooShortForAHeaderPassesNoCheck) {
  test::LogCapture log;
  Shared_mem_obj object = Plain(8);
  RawView raw(name_, 8);
  EXPECT_EQ(raw.Get(0), 8u);
  EXPECT_EQ(raw.Get(4), 1u);
  EXPECT_EQ(object.Open(kOpenForReading, true), nullptr);
  object.Close();
  EXPECT_TRUE(log.Contains("shared_mem_size=-1, major_ver=-1, minor_ver=-1\n")) << log.Text();
  EXPECT_NE(object.Open(kOpenForReading, false), nullptr);
  object.Close();
}

TEST_F(SharedMem, MappingSmallerThanTheRecordIsRefused) {
  // A page, because whole pages are mapped; the record asked for is larger than that.
  const HANDLE small =
      CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 4096, name_.c_str());
  ASSERT_NE(small, nullptr);
  test::LogCapture log;
  {
    Shared_mem_obj object = Plain(70000);
    EXPECT_EQ(object.Open(kOpenForReading, true), nullptr);
    object.Close();
    EXPECT_TRUE(MutexIsFree());
  }
  EXPECT_TRUE(
      log.Contains(test::kRegionFailed + name_ + ",size=70000) mapped_region create failed\n"))
      << log.Text();
  CloseHandle(small);
}

// Addresses with no memory behind them: a look at one would end the process.
TEST_F(SharedMem, MappingWithoutMemoryIsRefused) {
  const HANDLE hollow = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr,
                                           PAGE_READWRITE | SEC_RESERVE, 0, 70000, name_.c_str());
  ASSERT_NE(hollow, nullptr);
  test::LogCapture log;
  {
    Shared_mem_obj object = Plain(70000);
    for (const int mode : {kOpenForReading, kOpenForWriting}) {
      EXPECT_EQ(object.Open(mode, true), nullptr) << mode;
      object.Close();
      EXPECT_TRUE(MutexIsFree());
    }
  }
  EXPECT_TRUE(
      log.Contains(test::kRegionFailed + name_ + ",size=70000) mapped_region create failed\n"))
      << log.Text();
  CloseHandle(hollow);
}

#ifndef _WIN32
TEST_F(SharedMem, ARegionThatExistsIsOpenedAndNotMade) {
  Shared_mem_obj first = Plain();
  Write(first, 17);
  port::FailCall("CreateFileMappingA", 0, ERROR_NOT_ENOUGH_MEMORY);
  Shared_mem_obj second = Plain();
  port::ClearFaults();
  EXPECT_EQ(Read(second), 17u);
}

TEST_F(SharedMem, EachViewIsGivenBack) {
  port::CountCalls();
  {
    Shared_mem_obj object = Double();
    Write(object, 1);
    EXPECT_EQ(Read(object), 1u);
  }
  const HANDLE hollow = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr,
                                           PAGE_READWRITE | SEC_RESERVE, 0, 70000, name_.c_str());
  {
    Shared_mem_obj object = Plain(70000);
    EXPECT_EQ(object.Open(kOpenForReading, true), nullptr);
    object.Close();
  }
  CloseHandle(hollow);
  EXPECT_EQ(port::CallCount("MapViewOfFile"), 4u);
  EXPECT_EQ(port::CallCount("UnmapViewOfFile"), 4u);
  port::ClearFaults();
}
#endif

TEST_F(SharedMem, NameOfAnotherObjectIsRefused) {
  const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, name_.c_str());
  ASSERT_NE(event, nullptr);
  EXPECT_FALSE(Shared_mem_obj::Exists(name_));
  {
    Shared_mem_obj object = Plain();
    EXPECT_EQ(object.Open(kOpenForReading, true), nullptr);
    object.Close();
  }
  EXPECT_TRUE(MutexIsFree());
  CloseHandle(event);
}

TEST_F(SharedMem, ReaderSeesTheLastWriteThatWasClosed) {
  Shared_mem_obj writer = Double(), reader = Double();
  const RawView raw(name_, 36);
  Write(writer, 1);
  EXPECT_EQ(raw.Get(0), 1u);
  EXPECT_EQ(Read(reader), 1u);
  Write(writer, 2);
  EXPECT_EQ(raw.Get(0), 0u);
  EXPECT_EQ(Read(reader), 2u);
}

TEST_F(SharedMem, WriterThatDoesNotCloseIsNotSeen) {
  Shared_mem_obj writer = Double(), reader = Double();
  Write(writer, 1);
  static_cast<Record*>(writer.Open(kOpenForWriting, true))->value = 2;
  EXPECT_EQ(RawView(name_, 36).Get(0), 1u);
  EXPECT_EQ(Read(reader), 1u);
  writer.Close();
  EXPECT_EQ(Read(reader), 2u);
}

TEST_F(SharedMem, AnySelectorAboveOneMeansTheSecondCopy) {
  Shared_mem_obj writer = Double(), reader = Double();
  RawView raw(name_, 36);
  raw.Set(4 + 12, 100);
  raw.Set(20 + 12, 101);
  raw.Set(0, 7);
  EXPECT_EQ(Read(reader), 101u);
  raw.Set(0, 0xffffffff);
  EXPECT_EQ(Read(reader), 101u);
  raw.Set(0, 2);
  EXPECT_EQ(Read(reader), 101u);
  Write(writer, 102);  // into the first copy, which is then the one to read
  EXPECT_EQ(raw.Get(0), 0u);
  EXPECT_EQ(Read(reader), 102u);
}

TEST_F(SharedMem, ReaderDoesNotFlip) {
  Shared_mem_obj reader = Double();
  Read(reader);
  EXPECT_EQ(RawView(name_, 36).Get(0), 0u);
}

TEST_F(SharedMem, WriterIsRefusedOnAViewThatIsOpenForReading) {
  Shared_mem_obj object = Double();
  ASSERT_NE(object.Open(kOpenForReading, true), nullptr);
  EXPECT_EQ(object.Open(kOpenForWriting, true), nullptr);
  object.Close();  // flips nothing: the view is write-protected
  EXPECT_EQ(RawView(name_, 36).Get(0), 0u);
  Write(object, 1);
  EXPECT_EQ(RawView(name_, 36).Get(0), 1u);
}

TEST_F(SharedMem, TypedViewGivesTheRecordAndDoesNotClose) {
  Shared_mem_obj owner(name_, sizeof(Record), mutex_name_, false);
  {
    const Shared_mem_ptr<Record> view(&owner, kOpenForWriting, true);
    ASSERT_TRUE(view);
    view->value = 5;
  }
  EXPECT_FALSE(MutexIsFree());
  owner.Close();
  Shared_mem_ptr<const Record> view(&owner, kOpenForReading, true);
  const Shared_mem_closer closer(&owner);
  ASSERT_TRUE(view);
  EXPECT_EQ(view->value, 5u);
}

TEST_F(SharedMem, TypedViewOfAnotherSizeIsNullAndTheObjectStaysOpen) {
  test::LogCapture log;
  Shared_mem_obj owner(name_, 20, mutex_name_, false);
  const Shared_mem_ptr<Record> view(&owner, kOpenForReading, true);
  EXPECT_FALSE(view);
  EXPECT_EQ(view.get(), nullptr);
  EXPECT_FALSE(MutexIsFree());
  owner.Close();
  EXPECT_TRUE(MutexIsFree());
  EXPECT_TRUE(log.Contains("[4][Shared_mem_obj] Shared_mem_obj(" + name_ +
                           ",size=20) template type size(16) not match.\n"))
      << log.Text();
}

TEST_F(SharedMem, TypedViewOfAFailedOpenLogsNothingMore) {
  test::LogCapture log;
  Shared_mem_obj owner(name_, sizeof(Record), mutex_name_, false);
  RawView(name_, 16).Set(8, 37);
  const Shared_mem_ptr<Record> view(&owner, kOpenForReading, true);
  const Shared_mem_closer closer(&owner);
  EXPECT_FALSE(view);
  EXPECT_FALSE(log.Contains("template type size"));
}

}  // namespace
