// One instance: what it asks the plug-in, and what it makes of the answers.
#include "host/instances/instance.h"

#include <gtest/gtest.h>

namespace {

class instances : public testing::Test {
 protected:
  plugin p;
  int answer = 0;  // of dac_create and dac_isrun
  std::string document;
  std::vector<size_t> offers;  // sizes that dac_getinfo got
  std::vector<std::string> calls;

  instances() {
    p.create = [this](const char*, const char*, cblog, void*, cbaux, void*, cbdata, void*, cbaux, void*) {
      return answer;
    };
    p.stop = [this](int) { return calls.emplace_back("stop"), 0; };
    p.destroy = [this](int) { calls.emplace_back("destroy"); };
    p.isrun = [this](int) { return answer; };
    p.getinfo = [this](int, char* buf, size_t* size) {
      offers.push_back(*size);
      *buf = '\0';
      if (*size >= document.size()) document.copy(buf, document.size()), buf[document.size()] = '\0';
      *size = document.size() - 1;
      return 0;
    };
  }
  std::unique_ptr<instance> make() const {
    return instance::make(p, "name", "file", [](const report_item&) {});
  }
};

}  // namespace

TEST_F(instances, info_queries_the_length_and_then_passes_room_for_the_text_and_its_terminator) {
  const auto i = make();
  for (const char* text : {R"({"status":"stop","host":"a"})", "{}", "1"}) {
    document = text;
    offers.clear();
    EXPECT_EQ(i->info(), text);
    EXPECT_EQ(offers, (std::vector<size_t>{0, document.size() + 1}));
  }
}

TEST_F(instances, an_instance_runs_when_the_plug_in_says_so) {
  const auto i = make();
  EXPECT_FALSE(i->is_running());
  answer = 1;
  EXPECT_TRUE(i->is_running());
}

TEST_F(instances, an_instance_stops_before_it_is_destroyed) {
  make() = nullptr;
  EXPECT_EQ(calls, (std::vector<std::string>{"stop", "destroy"}));
}

TEST_F(instances, a_refused_instance_is_neither_stopped_nor_destroyed) {
  answer = -1;
  EXPECT_FALSE(make());
  EXPECT_EQ(calls, std::vector<std::string>{});
}
