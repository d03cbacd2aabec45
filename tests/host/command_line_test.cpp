// The command line: how words become options.
#include "host/command_line.h"

#include <gtest/gtest.h>

#include "tests/support/texts.h"

namespace {

std::variant<options, answer> parsed(const texts& words) {
  std::vector<const char*> argv = {"dachost"};
  for (const std::string& word : words) argv.push_back(word.c_str());
  return parse(static_cast<int>(argv.size()), argv.data());
}

/// The options, or none after a usage error.
options options_of(const texts& words) {
  const auto result = parsed(words);
  const options* o = std::get_if<options>(&result);
  EXPECT_TRUE(o) << std::get<answer>(result).text;
  return o ? *o : options();
}

/// The usage error, or "" if there is none.
std::string error_of(const texts& words) {
  const auto result = parsed(words);
  const answer* a = std::get_if<answer>(&result);
  return a && a->status == wrong_usage ? a->text : "";
}

}  // namespace

TEST(command_line, more_jobs_than_can_be_counted_are_as_many_as_can) {
  const options o = options_of({"run", "--exec", "p", "--jobs", "99999999999999999999", "gw.conf"});
  EXPECT_EQ(o.hook.jobs, SIZE_MAX);
}

TEST(command_line, an_option_that_ends_with_an_equals_sign_has_the_empty_value) {
  const texts names = {"--plugin", "--events", "--status", "--for",          "--exec", "--pick", "--interface",
                       "--hold",   "--again",  "--splay",  "--exec-timeout", "--jobs", "--state"};
  for (const std::string& name : names) {
    const std::string error = error_of({"run", "--exec", "p", name, "", "a.conf"});
    EXPECT_NE(error.find(name + ": "), std::string::npos) << error;
    EXPECT_EQ(error_of({"run", "--exec", "p", name + '=', "a.conf"}), error);
    EXPECT_EQ(error_of({"run", "--exec", "p", "a.conf", name + '='}), error);
  }
  for (const char* command : {"run", "top", "check", "tags", "info"}) {
    for (const char* option : {"--plugin=", "-p="}) {
      const std::string error = error_of({command, option, "a.conf"});
      EXPECT_TRUE(error.starts_with("--plugin: expected a file name, got '' (")) << error;
    }
  }
  EXPECT_TRUE(error_of({"top", "--for=", "3"}).starts_with("--for: expected a duration such as "));
}

TEST(command_line, other_words_that_end_with_an_equals_sign_are_unchanged) {
  const options o = options_of({"run", "--status=a=", "--exec", "--for=", "-p", "--", "--", "c=", "--state=", "-p="});
  EXPECT_EQ(o.status, "a=");
  EXPECT_EQ(o.hook.program, "--for=");
  EXPECT_EQ(o.plugin, "--");
  EXPECT_EQ(o.files, (texts{"c=", "--state=", "-p="}));
  EXPECT_EQ(options_of({"check", "CONFIG", "--plugin=x", "CONFIG="}).files, (texts{"CONFIG", "CONFIG="}));
  EXPECT_NE(error_of({"run", "--loud=", "a.conf"}).find("--loud=: not an option of run"), std::string::npos);
  EXPECT_NE(error_of({"--for=", "run", "a.conf"}).find("--for"), std::string::npos);
}

TEST(command_line, words_after_two_dashes_are_files_wherever_these_are) {
  const texts files = {"a", "-b", "--json", "-", "run", "--", "--exec=", "++", "./-c"};
  for (const texts& words : {texts{"run", "--", "a"}, {"run", "a", "--"}, {"run", "a", "-p", "x", "--"}}) {
    texts all = words;
    all.insert(all.end(), files.begin() + 1, files.end());
    const options o = options_of(all);
    EXPECT_EQ(o.files, files);
    EXPECT_FALSE(o.json);
  }
  EXPECT_NE(error_of({"--", "run", "a"}), "");
  EXPECT_NE(error_of({"run", "--"}).find("CONFIG: expected at least one"), std::string::npos);
}

TEST(command_line, errors_name_a_value_that_contains_a_sentence_of_another_error) {
  for (const std::string value : {"x requires y", "a excludes b", "a: At Most 1 required", "a: 1 required TEXT missing",
                                  "a was given a disallowed flag override"}) {
    const std::string error = error_of({"run", "--for", value, "gw.conf"});
    EXPECT_TRUE(error.starts_with("--for: expected a duration such as ")) << error;
    EXPECT_NE(error.find(", got '" + value + "' ("), std::string::npos) << error;
  }
}
