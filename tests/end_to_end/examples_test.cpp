// Each configuration in examples/ does what it says, in the plug-in as it is built.
#include <filesystem>
#include <fstream>
#include <iterator>

#include "tests/support/plugin_fixture.h"

namespace fs = std::filesystem;

namespace {

const fs::path directory = SOURCE_DIR "/examples";

constexpr struct {
  const char* file;
  const char* hostname;
} taken[] = {
    {"ip6dns.conf", "gateway.example"},
    {"plain.conf", "gateway.example"},
    {"comments.conf", "pump-house.example"},
    {"sections.conf", "Gateway-7.Example"},
    {"overrides.conf", "site-12.example"},
    {"name-with-spaces.conf",
     "Pumpwerk S\xc3\xbc"
     "d, Tor 3"},
    {"crlf.conf", "office-pc.example"},
    {"several/gateway.conf", "gateway.example"},
    {"several/cameras.conf", "cameras.example"},
};

constexpr struct {
  const char* file;
  const char* reason;  // in front of the file's path
} refused[] = {
    {"refused/quotes.conf", "hostname contains illegal characters in "},
    {"refused/stray-text.conf", "not config hostname in "},
    {"refused/empty-name.conf", "not config hostname in "},
};

const fs::path drop_in = "nsupdate.conf";  // of the systemd unit

std::string read_file(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

void store_name(const char* name, int /*type*/, int /*flag*/, const char* /*text1*/, const char* /*text2*/,
                void* param) {
  *static_cast<std::string*>(param) = name;
}

class examples : public plugin_fixture {
 protected:
  int create_example(const char* file) {
    const std::string path = directory / file;
    return rec.args("drv", path.c_str()).create(lib);
  }
  std::string tag_of(int h) const {
    std::string name;
    EXPECT_EQ(lib.getalltagsex(h, store_name, &name), 0);
    return name;
  }
};

}  // namespace

TEST_F(examples, are_all_known_to_these_tests) {
  std::set<std::string> known, found;
  for (const auto& e : taken) known.insert(e.file);
  for (const auto& e : refused) known.insert(e.file);
  for (const fs::path& f : fs::recursive_directory_iterator(directory))
    if (f.extension() == ".conf" && f.filename() != drop_in) found.insert(fs::relative(f, directory));
  EXPECT_EQ(found, known);
}

TEST_F(examples, give_the_host_name_that_they_are_to_give) {
  for (const auto& e : taken) {
    SCOPED_TRACE(e.file);
    const int h = create_example(e.file);
    ASSERT_GE(h, 0);
    EXPECT_EQ(tag_of(h), e.hostname);
    EXPECT_EQ(info(h), std::string(R"({"status":"stop","host":")") + e.hostname + "\"}");
    lib.destroy(h);
  }
  EXPECT_EQ(rec.messages(), std::vector<std::string>{});
}

TEST_F(examples, publish_the_addresses_under_that_name) {
  for (const auto& e : taken) {
    SCOPED_TRACE(e.file);
    rec.clear();
    const int h = create_example(e.file);
    start(h);
    fake_clock::step();
    ASSERT_EQ(rec.publications().size(), 1U);
    EXPECT_STREQ(rec.publications()[0].record.name, e.hostname);
    EXPECT_EQ(rec.values(), std::vector<std::string>{address});
    stop(h);
    lib.destroy(h);
  }
}

TEST_F(examples, of_several_instances_run_in_one_host) {
  const int gateway = create_example("several/gateway.conf"), cameras = create_example("several/cameras.conf");
  ASSERT_NE(gateway, cameras);
  start(gateway);
  start(cameras);
  fake_clock::step();
  std::set<std::string> names;
  for (const publication& p : rec.publications()) names.insert(p.record.name);
  EXPECT_EQ(names, (std::set<std::string>{"gateway.example", "cameras.example"}));
}

TEST_F(examples, of_mistakes_are_refused_with_the_message_that_they_quote) {
  for (const auto& e : refused) {
    SCOPED_TRACE(e.file);
    rec.clear();
    EXPECT_EQ(create_example(e.file), -1);
    EXPECT_EQ(rec.messages(), std::vector<std::string>{std::string(e.reason) + (directory / e.file).string()});
    EXPECT_NE(read_file(directory / e.file).find(std::string("#   ") + e.reason + e.file + '\n'), std::string::npos);
  }
}

TEST_F(examples, with_line_ends_of_another_system_still_have_them) {
  const std::string text = read_file(directory / "crlf.conf");
  EXPECT_TRUE(text.starts_with("\xef\xbb\xbf#"));
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 6);
  EXPECT_NE(text.find("hostname = office-pc.example\r\n"), std::string::npos) << "directly after the name";
  for (size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 1))
    EXPECT_EQ(text[at - 1], '\r') << at;
}
