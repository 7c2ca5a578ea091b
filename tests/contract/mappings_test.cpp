// File mappings that only memory backs.
#include "tests/contract/world.h"
//
#include <memoryapi.h>

#include <cstring>

namespace contract {
namespace {

HANDLE CreateMapping(DWORD size, const std::string& name) {
  return CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, size, name.c_str());
}

char* MapAll(HANDLE mapping, SIZE_T size = 0) {
  return static_cast<char*>(MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, size));
}

TEST(Mapping, IsInitiallyZero) {
  HANDLE mapping = CreateMapping(5000, UniqueName("mapping"));
  CHECK_EQ(GetLastError(), 0u);
  char* view = MapAll(mapping, 5000);
  int sum = 0;
  for (int i = 0; i < 5000; ++i) sum |= view[i];
  CHECK_EQ(sum, 0);
  CHECK_TRUE(UnmapViewOfFile(view));
  CHECK_TRUE(CloseHandle(mapping));
}

TEST(Mapping, SecondOpenFindsTheData) {
  const std::string name = UniqueName("mapping");
  CHECK_FAILS(OpenFileMappingA(FILE_MAP_ALL_ACCESS, TRUE, name.c_str()),
              static_cast<HANDLE>(nullptr), ERROR_FILE_NOT_FOUND);
  HANDLE first = CreateMapping(8192, name);
  char* writer = MapAll(first);
  std::strcpy(writer, "hello");
  HANDLE second = OpenFileMappingA(FILE_MAP_ALL_ACCESS, TRUE, name.c_str());
  CHECK_NE(second, static_cast<HANDLE>(nullptr));
  const char* reader = static_cast<const char*>(MapViewOfFile(second, FILE_MAP_READ, 0, 0, 8192));
  CHECK_EQ(std::string(reader), "hello");
  std::strcpy(writer, "again");
  CHECK_EQ(std::string(reader), "again");  // one memory, two views
  HANDLE third = CreateMapping(100, name);
  CHECK_EQ(GetLastError(), static_cast<DWORD>(ERROR_ALREADY_EXISTS));
  char* whole = MapAll(third, 8192);  // the size is the first creator's
  CHECK_EQ(std::string(whole), "again");
  CHECK_TRUE(UnmapViewOfFile(whole));
  CHECK_TRUE(UnmapViewOfFile(reader));
  CHECK_TRUE(UnmapViewOfFile(writer));
  for (HANDLE handle : {first, second, third}) CHECK_TRUE(CloseHandle(handle));
  CHECK_FAILS(OpenFileMappingA(FILE_MAP_READ, TRUE, name.c_str()), static_cast<HANDLE>(nullptr),
              ERROR_FILE_NOT_FOUND);
}

TEST(Mapping, ViewBeyondItsEndFails) {
  HANDLE mapping = CreateMapping(4096, UniqueName("mapping"));
  CHECK_FAILS(MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, 4097), nullptr, ERROR_ACCESS_DENIED);
  CHECK_FAILS(MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, 1 << 20), nullptr,
              ERROR_ACCESS_DENIED);
  CHECK_TRUE(CloseHandle(mapping));
}

TEST(Mapping, SizeIsRoundedUpToWholePages) {
  // A view may reach to the end of the mapping's last page, but not into the next.
  HANDLE mapping = CreateMapping(100, UniqueName("mapping"));
  char* view = MapAll(mapping, 4096);
  CHECK_NE(static_cast<void*>(view), static_cast<void*>(nullptr));
  CHECK_TRUE(UnmapViewOfFile(view));
  CHECK_FAILS(MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, 4097), nullptr, ERROR_ACCESS_DENIED);
  CHECK_TRUE(CloseHandle(mapping));
}

TEST(Mapping, ViewOutlivesTheHandle) {
  HANDLE mapping = CreateMapping(4096, UniqueName("mapping"));
  char* view = MapAll(mapping);
  CHECK_TRUE(CloseHandle(mapping));
  std::strcpy(view, "still here");
  CHECK_EQ(std::string(view), "still here");
  CHECK_TRUE(UnmapViewOfFile(view));
  CHECK_FALSE(UnmapViewOfFile(view));
}

TEST(Mapping, OffsetIsAMultipleOfTheGranularity) {
  HANDLE mapping = CreateMapping(3 * 65536, UniqueName("mapping"));
  char* view = MapAll(mapping);
  view[65536] = 'x';
  const char* second =
      static_cast<const char*>(MapViewOfFile(mapping, FILE_MAP_READ, 0, 65536, 10));
  CHECK_EQ(second[0], 'x');
  CHECK_FAILS(MapViewOfFile(mapping, FILE_MAP_READ, 0, 4096, 10), nullptr, 1132);
  UnmapViewOfFile(second);
  UnmapViewOfFile(view);
  CloseHandle(mapping);
}

// Whether there is memory behind a view is known before it is looked at.
TEST(Mapping, MayBeMereAddresses) {
  MEMORY_BASIC_INFORMATION region = {};
  HANDLE whole = CreateMapping(70000, UniqueName("mapping"));
  const char* view = MapAll(whole, 70000);
  CHECK_EQ(VirtualQuery(view, &region, sizeof region), sizeof region);
  CHECK_EQ(region.State, static_cast<DWORD>(MEM_COMMIT));
  CHECK_TRUE(region.RegionSize >= 70000);
  CHECK_TRUE(UnmapViewOfFile(view));
  CHECK_TRUE(CloseHandle(whole));
  HANDLE hollow = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE | SEC_RESERVE, 0,
                                     70000, UniqueName("mapping").c_str());
  view = MapAll(hollow, 70000);
  CHECK_EQ(VirtualQuery(view, &region, sizeof region), sizeof region);
  CHECK_EQ(region.State, static_cast<DWORD>(MEM_RESERVE));
  CHECK_TRUE(UnmapViewOfFile(view));
  CHECK_TRUE(CloseHandle(hollow));
}

TEST(Mapping, OfNoSizeCannotBe) {
  CHECK_FAILS(CreateMapping(0, UniqueName("mapping")), static_cast<HANDLE>(nullptr),
              ERROR_INVALID_PARAMETER);
}

// Pages straight from the system: zero, whatever lay there before.
TEST(Pages, AreZeroAndAreFreedAsAWhole) {
  constexpr DWORD kSize = 300'000;
  for (int round = 0; round < 3; ++round) {
    auto* const bytes = static_cast<unsigned char*>(
        VirtualAlloc(nullptr, kSize, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
    CHECK_NE(static_cast<void*>(bytes), nullptr);
    int sum = 0;
    for (DWORD i = 0; i < kSize; ++i) sum |= bytes[i];
    CHECK_EQ(sum, 0);
    std::memset(bytes, 0x5a, kSize);
    CHECK_FAILS(VirtualFree(bytes, 1, MEM_RELEASE), FALSE, ERROR_INVALID_PARAMETER);
    CHECK_TRUE(VirtualFree(bytes, 0, MEM_RELEASE));
  }
  CHECK_FAILS(VirtualAlloc(nullptr, 0, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE), nullptr,
              ERROR_INVALID_PARAMETER);
}

}  // namespace
}  // namespace contract
