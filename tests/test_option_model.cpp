// The lock option table against a model: random stores and resets of paths
// that share starts, differ just before or after a "/", and carry trailing
// slashes, each followed by a comparison of the whole table and of the
// status. The table finds entries by binary search; the model walks every
// entry with the removal rule written out plainly.
#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "qmtest_fixture.h"

using namespace qmtest;

namespace {

using Table = std::vector<std::pair<std::string, QMELMLockOption>>;

// The removal rule of a reset of f (not "/"): the entry f itself, f without
// a trailing slash, and every entry whose key continues f with "/". The
// root entry stays.
bool resetRemoves(const std::string &f, const std::string &key) {
  if (key == "/") return false;
  if (key == f) return true;
  if (f.size() == key.size() + 1 && f.back() == '/' && f.compare(0, key.size(), key) == 0)
    return true;
  return key.size() > f.size() && key[f.size()] == '/' && key.compare(0, f.size(), f) == 0;
}

struct Model {
  Table t{{"/", QMELM_Fail}};
  void store(const std::string &path, QMELMLockOption o) {
    auto it = std::lower_bound(t.begin(), t.end(), path,
                               [](const auto &e, const std::string &k) { return e.first < k; });
    if (it != t.end() && it->first == path)
      it->second = o;
    else
      t.insert(it, {path, o});
  }
  // 0, or QMELM_E_OPTION_NOT_FOUND when nothing was removed.
  int reset(const std::string &path) {
    if (path == "/") {
      t = {{"/", QMELM_Fail}};
      return 0;
    }
    const size_t before = t.size();
    std::erase_if(t, [&](const auto &e) { return resetRemoves(path, e.first); });
    return t.size() == before ? static_cast<int>(QMELM_E_OPTION_NOT_FOUND) : 0;
  }
};

// Paths over a few names that sort around "/" ('-' and '.' before it, 'b'
// after), up to three levels, sometimes with a trailing slash.
std::string randomPath(std::mt19937 &rng) {
  static const char *const names[] = {"a", "a-", "a.", "ab", "b", "a0"};
  std::uniform_int_distribution<int> depth(1, 3), name(0, 5), coin(0, 3);
  std::string p;
  const int d = depth(rng);
  for (int i = 0; i < d; ++i) p += std::string("/") + names[name(rng)];
  if (coin(rng) == 0) p += "/";
  return p;
}

}  // namespace

TEST(OptionTableModel, StoresAndResetsAgreeWithALinearWalk) {
  TestHost host;
  Model model;
  const size_t blocks = host.liveBlocks();
  std::mt19937 rng(20261124);
  std::uniform_int_distribution<int> op(0, 9), opt(0, 2);
  const QMELMLockOption options[] = {QMELM_Fail, QMELM_None, QMELM_Continue};
  for (int step = 0; step < 3000; ++step) {
    const int o = op(rng);
    const std::string path = o == 9 && step % 500 == 499 ? "/" : randomPath(rng);
    if (o < 6) {
      const QMELMLockOption v = options[opt(rng)];
      ASSERT_EQ(host.setOption(path, v), 0) << path;
      model.store(path, v);
    } else {
      const int want = model.reset(path);
      EXPECT_EQ(host.setOption(path, QMELM_Reset), want) << "reset " << path;
    }
    ASSERT_EQ(host.options(), model.t) << "after step " << step << " on " << path;
  }
  // Everything removed along the way went back to the pool: a whole reset
  // leaves the root entry alone.
  ASSERT_EQ(host.setOption("/", QMELM_Reset), 0);
  EXPECT_EQ(host.options(), (Table{{"/", QMELM_Fail}}));
  EXPECT_EQ(host.ext->NumOptions, 1u);
  EXPECT_EQ(host.ext->NumSlotsLeft, host.ext->NumSlots - 1);
  EXPECT_EQ(host.liveBlocks(), blocks);
}
