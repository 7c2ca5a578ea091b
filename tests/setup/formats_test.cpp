// The text form of catalogues, and the files that have to survive a cut.
#include <filesystem>

#include "setup/guid_text.h"
#include "setup/image_machine.h"
#include "tests/setup/world.h"

namespace {

TEST(SetupFormats, ACatalogueComesBackAsItWas) {
  setup_test::World world;
  world.AddForeign();
  world.Install();
  setup::MachineImage image = world.Now();
  image.applications[L"C:\\Gr\u00FC\u00DFe\\a.exe"] = setup::kSystemCategory;
  setup::MachineImage read;
  std::string problem;
  ASSERT_TRUE(setup::ParseImage(setup::ImageText(image), &read, &problem)) << problem;
  EXPECT_EQ(setup::ImageText(read), setup::ImageText(image));
  EXPECT_EQ(read.applications, image.applications);
  EXPECT_TRUE(setup_test::Comparable(read) == setup_test::Comparable(image));
}

TEST(SetupFormats, WhatIsNoCatalogueIsRefusedWithAReason) {
  const char* const kBad[] = {
      "",
      "[]",
      "{}",
      R"({"vyr_catalogue": 2, "catalogues": {}})",
      R"({"vyr_catalogue": 1, "catalogues": {"16": {"entries": [], "providers": {}}}})",
      R"({"vyr_catalogue": 1, "catalogues": {"32": {"entries": [{}], "providers": {}}}})",
      R"({"vyr_catalogue": 1, "catalogues": {"32": {"entries": [], "providers": {"x": "y"}}}})",
      R"({"vyr_catalogue": 1, "catalogues": {"32": {"entries": [{"name": "a", "provider":
          "{00000000-0000-0000-0000-000000000001}", "chain_length": 8, "chain": []}],
          "providers": {}}}})",
  };
  for (const char* text : kBad) {
    setup::MachineImage image;
    std::string problem;
    EXPECT_FALSE(setup::ParseImage(text, &image, &problem)) << text;
    EXPECT_FALSE(problem.empty()) << text;
  }
}

TEST(SetupFormats, GuidsHaveBracesAndHexDigits) {
  EXPECT_EQ(setup::GuidText(setup::kHiddenGuid), "{4D2062B0-79CA-466E-94D4-21FE2ED90EE6}");
  EXPECT_EQ(setup::ParseGuid("{4d2062b0-79ca-466e-94d4-21fe2ed90ee6}"), setup::kHiddenGuid);
  EXPECT_FALSE(setup::ParseGuid("4D2062B0-79CA-466E-94D4-21FE2ED90EE6"));
  EXPECT_FALSE(setup::ParseGuid("{4D2062B0-79CA-466E-94D4-21FE2ED90EEg}"));
}

TEST(SetupFormats, AFileMachineWritesEachChange) {
  setup_test::World world;
  setup_test::MemoryFile file("catalogue", &world.fuse);
  setup::FileMachine machine(world.Now(), &file);
  setup::Journal journal(&world.journal_file);
  const setup::Records records = {&journal, &world.undo};
  EXPECT_EQ(setup::Install(&machine, records, world.request).result, setup::Result::kDone);
  setup::MachineImage written;
  std::string problem;
  ASSERT_TRUE(setup::ParseImage(*file.content, &written, &problem));
  EXPECT_EQ(setup::OwnProviders(written.catalogues.at(setup::Kind::k32)).size(), 4U);
  port::FailCall("catalogue Write", 1, 1);
  EXPECT_EQ(setup::Uninstall(&machine, records, world.request).result, setup::Result::kFailed);
  EXPECT_EQ(setup::ImageText(written), *file.content);
}

TEST(SetupFormats, AFileIsReplacedAtOnceAndAppendedTo) {
  const auto folder = std::filesystem::temp_directory_path() /
                      ("vyr-setup-" + std::to_string(GetCurrentProcessId()));
  std::filesystem::create_directories(folder);
  setup::FileStorage file((folder / "a.json").wstring());
  bool failed = true;
  EXPECT_FALSE(file.Read(&failed).has_value());
  EXPECT_FALSE(failed);
  EXPECT_TRUE(file.Write("one\n"));
  EXPECT_TRUE(file.Append("two\n"));
  EXPECT_EQ(file.Read(&failed), "one\ntwo\n");
  EXPECT_TRUE(file.Write("three\n"));
  EXPECT_EQ(file.Read(&failed), "three\n");
  EXPECT_TRUE(file.Remove());
  EXPECT_FALSE(setup::FileStorage((folder / "none" / "a").wstring()).Write("x"));
  EXPECT_TRUE(std::filesystem::is_empty(folder));
  std::filesystem::remove_all(folder);
}

}  // namespace
