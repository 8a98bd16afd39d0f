#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "tov/kor_alloc.h"
#include "tov/strings.h"

namespace {

const char *const kLabel = "test: replace";

std::string replace(const std::string &source, const std::vector<str_pair> &pairs) {
    char *out = str_replace_multi(source.c_str(), pairs.data(), static_cast<uint32_t>(pairs.size()),
                                  kLabel);
    EXPECT_NE(out, nullptr);
    std::string result = out ? out : "";
    kor_named_free(out);
    return result;
}

struct ModelStats {
    int capped = 0, longest_won = 0, overlap_dropped = 0;
};

// The rules written out plainly: collect matches pair by pair (each pair's first, then at most
// nine more over all pairs), order by position with the longest first and the earlier pair on a
// tie, keep greedily from the left.
std::string model(const std::string &s, const std::vector<std::string> &find,
                  const std::vector<std::string> &repl, ModelStats &st) {
    struct Match {
        size_t at, len, pair;
    };
    std::vector<Match> found;
    size_t extras = 0;
    for (size_t p = 0; p < find.size(); ++p) {
        if (find[p].empty()) continue;
        size_t at = s.find(find[p]);
        for (bool first = true; at != std::string::npos; first = false) {
            if (!first && extras == 9) {
                ++st.capped;
                break;
            }
            extras += !first;
            found.push_back({at, find[p].size(), p});
            at = s.find(find[p], at + find[p].size());
        }
    }
    std::sort(found.begin(), found.end(), [](const Match &a, const Match &b) {
        return std::tuple(a.at, b.len, a.pair) < std::tuple(b.at, a.len, b.pair);
    });
    std::string out;
    size_t pos = 0;
    bool any = false;
    for (size_t i = 0; i < found.size(); ++i) {
        const Match &m = found[i];
        if (any && m.at < pos) {
            if (m.at == found[i - 1].at && found[i - 1].len > m.len)
                ++st.longest_won;
            else
                ++st.overlap_dropped;
            continue;
        }
        out += s.substr(pos, m.at - pos) + repl[m.pair];
        pos = m.at + m.len;
        any = true;
    }
    return out + s.substr(pos);
}

TEST(ReplaceMulti, DocumentedExamples) {
    EXPECT_EQ(replace("aaaa", {{"a", "b"}}), "bbbb");
    EXPECT_EQ(replace("aaaaaaaaaaaa", {{"a", "b"}}), "bbbbbbbbbbaa"); // first plus nine more
    EXPECT_EQ(replace("abcd", {{"ab", "X"}, {"abc", "Y"}}), "Yd");
    EXPECT_EQ(replace("abcd", {{"abc", "X"}, {"bcd", "Y"}}), "Xd");
    EXPECT_EQ(replace("a&b<c", {{"&", "&amp;"}, {"<", "&lt;"}}), "a&amp;b&lt;c");
    // Equal patterns at one place: the earlier pair wins, however many entries there are to sort.
    std::vector<std::string> names;
    for (int i = 0; i < 60; ++i) names.push_back("r" + std::to_string(i));
    std::vector<str_pair> same;
    for (const std::string &n : names) same.push_back({"a", n.c_str()});
    EXPECT_EQ(replace("aaa", same), "r0r0r0");
    std::vector<str_pair> broken = {{"a", "b"}, {"c", nullptr}};
    EXPECT_EQ(str_replace_multi("abc", broken.data(), 2, kLabel), nullptr);
}

TEST(ReplaceMulti, AgreesWithAPlainModelOnRandomInputs) {
    std::mt19937 rng(1234);
    auto text = [&](size_t lo, size_t hi, const char *alphabet, size_t n) {
        std::string t(std::uniform_int_distribution<size_t>(lo, hi)(rng), ' ');
        for (char &c : t) c = alphabet[rng() % n];
        return t;
    };
    ModelStats st;
    for (int round = 0; round < 5000; ++round) {
        std::string source = text(0, 40, "abc", round % 2 ? 2 : 3);
        std::vector<std::string> find, repl;
        for (size_t n = 1 + rng() % 4; n > 0; --n) {
            find.push_back(text(0, 3, "abc", 3));
            repl.push_back(text(0, 4, "XYa", 3));
        }
        std::vector<str_pair> pairs;
        for (size_t i = 0; i < find.size(); ++i)
            pairs.push_back({find[i].c_str(), repl[i].c_str()});
        ASSERT_EQ(replace(source, pairs), model(source, find, repl, st))
            << "source " << source << ", first pattern " << find[0];
    }
    // The random inputs must have exercised every rule many times over.
    EXPECT_GT(st.capped, 500);
    EXPECT_GT(st.longest_won, 500);
    EXPECT_GT(st.overlap_dropped, 500);
    kor_named_stats s{};
    kor_named_get_stats(kLabel, &s);
    EXPECT_EQ(s.live_blocks, 0u);
}

} // namespace
