// The host's flat map of live addresses (its pools record every block in
// one) against std::unordered_map: random records and removals, with keys
// packed closely enough that probe runs wrap around the table's end and
// removals shift entries back across it.
#include <gtest/gtest.h>

#include <random>
#include <unordered_map>
#include <vector>

#include "../qmhost/src/address_map.h"

namespace {

const void *key(uintptr_t i) {
  return reinterpret_cast<const void *>((i + 1) * 16);
}

}  // namespace

TEST(AddressMap, AgreesWithAModelThroughGrowthAndRemovals) {
  qmhost::AddressMap<size_t> map;
  std::unordered_map<const void *, size_t> model;
  std::mt19937_64 rng(7);
  for (int round = 0; round < 200000; ++round) {
    const uintptr_t k = rng() % 3000;
    const bool remove = rng() % 5 < 2;
    size_t got = 0;
    if (model.count(key(k)) != 0) {
      if (remove) {
        ASSERT_TRUE(map.take(key(k), &got));
        EXPECT_EQ(got, model[key(k)]);
        model.erase(key(k));
      }
    } else if (!remove) {
      ASSERT_TRUE(map.insert(key(k), k * 3));
      model[key(k)] = k * 3;
    } else {
      EXPECT_FALSE(map.take(key(k), &got)) << "never recorded: " << k;
    }
    ASSERT_EQ(map.size(), model.size());
  }
  // Every entry is still reachable, and nothing else is there.
  size_t seen = 0;
  map.forEach([&](const void *k, size_t v) {
    ++seen;
    auto it = model.find(k);
    ASSERT_NE(it, model.end());
    EXPECT_EQ(it->second, v);
  });
  EXPECT_EQ(seen, model.size());
  for (const auto &[k, v] : model) {
    size_t got = 0;
    ASSERT_TRUE(map.take(k, &got));
    EXPECT_EQ(got, v);
  }
  EXPECT_EQ(map.size(), 0u);

  // Owning values go with the entries taken, and with the map.
  qmhost::AddressMap<std::unique_ptr<int>> owners;
  auto a = std::make_unique<int>(1);
  const void *ka = a.get();
  ASSERT_TRUE(owners.insert(ka, std::move(a)));
  ASSERT_TRUE(owners.insert(key(1), std::make_unique<int>(2)));
  std::unique_ptr<int> back;
  ASSERT_TRUE(owners.take(ka, &back));
  EXPECT_EQ(*back, 1);
  EXPECT_FALSE(owners.take(ka, &back));
  EXPECT_EQ(owners.size(), 1u);
}
