// SPDX-License-Identifier: BSD-3-Clause
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <tuple>

#include "support/alloc.hpp"
#include "tov/strings.h"

namespace {

const char *const kLabel = "test: replace";

std::string replace(const std::string &source, const std::vector<str_pair> &pairs) {
    auto n = static_cast<uint32_t>(pairs.size());
    return tov::test::take(str_replace_multi(source.c_str(), pairs.data(), n, kLabel)).value();
}

TEST(ReplaceMulti, TiesAmongManyPairsAndNullPairs) {
    std::vector<std::string> names; // equal patterns: the earlier pair wins, however many
    for (int i = 0; i < 60; ++i) names.push_back(std::string("r") + std::to_string(i));
    std::vector<str_pair> same;
    for (const std::string &n : names) same.push_back({"a", n.c_str()});
    EXPECT_EQ(replace("aaa", same), "r0r0r0");
    std::vector<str_pair> broken = {{"a", "b"}, {"c", nullptr}};
    EXPECT_EQ(str_replace_multi("abc", broken.data(), 2, kLabel), nullptr);
}

struct Counts {
    int capped = 0, longest_won = 0, overlap_dropped = 0;
};

// The rules written out plainly: each pair's matches left to right (its first always, then at
// most nine more over all pairs); by position, longest first, earlier pair on a tie; keep
// greedily from the left.
std::string model(const std::string &s, const std::vector<std::string> &find,
                  const std::vector<std::string> &repl, Counts &c) {
    std::vector<std::tuple<size_t, size_t, size_t>> found; // position, -length, pair
    size_t extras = 0;
    for (size_t p = 0; p < find.size(); ++p) {
        for (size_t at = s.find(find[p]); !find[p].empty() && at != std::string::npos;
             at = s.find(find[p], at + find[p].size())) {
            bool first = found.empty() || std::get<2>(found.back()) != p;
            if (!first && extras == 9 && ++c.capped) break;
            extras += !first;
            found.emplace_back(at, SIZE_MAX - find[p].size(), p);
        }
    }
    std::sort(found.begin(), found.end());
    std::string out;
    size_t pos = 0, last_at = SIZE_MAX;
    for (auto [at, neg_len, p] : found) {
        if (last_at != SIZE_MAX && at < pos) {
            ++(at == last_at ? c.longest_won : c.overlap_dropped);
            continue;
        }
        out += s.substr(pos, at - pos) + repl[p];
        pos = at + find[p].size();
        last_at = at;
    }
    return out + s.substr(pos);
}

TEST(ReplaceMulti, AgreesWithAPlainModelOnRandomInputs) {
    std::mt19937 rng(1234);
    auto text = [&](size_t max, const char *alphabet, size_t letters) {
        std::string t(rng() % (max + 1), ' ');
        for (char &c : t) c = alphabet[rng() % letters];
        return t;
    };
    Counts c;
    for (int round = 0; round < 5000; ++round) {
        std::string source = text(40, "abc", round % 2 ? 2 : 3);
        std::vector<std::string> find, repl;
        std::vector<str_pair> pairs(1 + rng() % 4);
        for (size_t i = 0; i < pairs.size(); ++i) {
            find.push_back(text(3, "abc", 3));
            repl.push_back(text(4, "XYa", 3));
        }
        for (size_t i = 0; i < pairs.size(); ++i) pairs[i] = {find[i].c_str(), repl[i].c_str()};
        ASSERT_EQ(replace(source, pairs), model(source, find, repl, c)) << source << " " << find[0];
    }
    // The inputs must exercise every rule many times over.
    EXPECT_GT(std::min({c.capped, c.longest_won, c.overlap_dropped}), 500);
    EXPECT_EQ(tov::test::live_blocks(kLabel), 0u);
}

} // namespace
