// SPDX-License-Identifier: BSD-3-Clause
// The XPath builder: paths and aliases step by step with their exact sizes, the copy into an error
// record with its labels, and every allocation failing once and from then on.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "support/alloc.hpp"
#include "tov/gpb.h"
#include "tov/xpath.h"

namespace {

using tov::test::live_blocks;

const char *const kName[] = {"name"}, *const kEth0[] = {"eth0"}, *const kAB[] = {"a", "b"}, *const k12[] = {"1", "2"};

TEST(XPath, StepsAliasesAndTheErrorRecord) {
    XPathContext x{};
    ASSERT_EQ(xpath_context_init(&x), 0);
    const std::string inner = "ns1:interfaces/ns1:interface[name = 'eth0']", outer = "config/ns2:top/" + inner;
    const struct Step {
        const char *name, *ns;
        const char *const *names, *const *values;
        uint32_t keys;
        int rc;
        std::string path;
    } steps[] = {
        {"interface", "urn:a", kName, kEth0, 1, 0, "ns1:interface[name = 'eth0']"},
        {"interfaces", "urn:a", nullptr, nullptr, 0, 0, inner},
        {"top", "urn:b", nullptr, nullptr, 0, 0, "ns2:top/" + inner},
        {"config", nullptr, nullptr, nullptr, 0, 0, outer},
        {"bad", "urn:c", kAB, nullptr, 2, 22, outer}, // refused before urn:c gets an alias
        {nullptr, nullptr, nullptr, nullptr, 0, 22, outer},
        {"l", nullptr, kAB, k12, 2, 0, "l[a = '1' and b = '2']/" + outer},
    };
    for (const Step &s : steps) {
        EXPECT_EQ(xpath_prepend(&x, s.name, s.ns, s.names, s.values, s.keys), s.rc) << s.path;
        EXPECT_EQ(x.path, s.path);
    }

    Error error{};
    ASSERT_EQ(xpath_to_tov_error(&x, &error), 0);
    const DataTree &p = error.error_path;
    EXPECT_EQ(p.value, steps[6].path);
    EXPECT_EQ(p.present[0], 1u << TOV_DATATREE_BIT_VALUE | 1u << TOV_DATATREE_BIT_ATTRIBUTES);
    tov::test::Strings declared, expected; // in the map's own order, which the declarations follow
    for (kor_hashmap_tuple *t = kor_hashmap_first(x.aliases); t; t = kor_hashmap_next(x.aliases, t))
        expected.push_back("xmlns:" + std::string(static_cast<char *>(kor_hashmap_value(t))) + "=" +
                           static_cast<char *>(kor_hashmap_key(t)) + "/3");
    for (uint32_t i = 0; i < p.attributes_count; ++i) {
        // Appended piece by piece: gcc 12 sees a false overlap in chained concatenation at -O2.
        std::string d = p.attributes[i].name;
        d.append("=").append(p.attributes[i].value).append("/").append(std::to_string(p.attributes[i].present[0]));
        declared.push_back(d);
    }
    EXPECT_EQ(declared, expected);
    std::sort(declared.begin(), declared.end());
    EXPECT_EQ(declared, (std::vector<std::string>{"xmlns:ns1=urn:a/3", "xmlns:ns2=urn:b/3"}));
    for (auto [label, n] : {std::pair{"copy of xpath path", 1u}, {"query transformer namespace attributes", 1u},
                            {"copy of xpath namespace tag", 2u}, {"prepended 'xmlns:' to xpath namespace value", 2u},
                            {"copy of namespace for xpath attribute", 2u}})
        EXPECT_EQ(live_blocks(label), n) << label;
    EXPECT_EQ(xpath_to_tov_error(&x, &error), 22); // the path is there already
    kesh_tov_error_free_ext(&error, tov_gpb_free, 0, 0);
    xpath_context_destroy(&x);
    EXPECT_EQ(live_blocks(), 0u);

    XPathContext empty{};
    Error bare{};
    ASSERT_EQ(xpath_context_init(&empty), 0);
    EXPECT_EQ(xpath_to_tov_error(&empty, &bare), 0); // a present, null value and no declarations
    EXPECT_EQ(bare.error_path.value, nullptr);
    EXPECT_EQ(bare.error_path.present[0], 1u << TOV_DATATREE_BIT_VALUE);
    EXPECT_EQ(xpath_to_tov_error(nullptr, &bare), 22);
    xpath_context_destroy(&empty), xpath_context_destroy(nullptr);
    EXPECT_EQ(xpath_context_init(nullptr), 0);
}

// Each allocation fails in turn, once and from then on: 12 (0 for the path copy, which the error
// may lack), a failed prepend leaves the path, and nothing is live after destroy and release.
TEST(XPath, EveryAllocationFailureOnceAndPersistent) {
    XPathContext x{};
    Error e{};
    std::string before;
    const auto arrange = [&] {
        x = {}, e = {};
        ASSERT_EQ(xpath_context_init(&x), 0);
        ASSERT_EQ(xpath_prepend(&x, "top", "urn:b", kName, kEth0, 1), 0);
        ASSERT_EQ(xpath_prepend(&x, "config", "urn:a", nullptr, nullptr, 0), 0);
        before = x.path;
    };
    const struct {
        std::function<int()> call;
        tov::test::Strings benign;
    } sweeps[] = {
        {[&] { return xpath_context_destroy(&x), xpath_context_init(&x); }, {}},
        {[&] { return xpath_prepend(&x, "l", "urn:new", kAB, k12, 2); }, {}},
        {[&] { return xpath_to_tov_error(&x, &e); }, {"copy of xpath path"}},
    };
    for (const auto &s : sweeps) {
        const auto call = [&]() -> int64_t {
            const int rc = s.call();
            EXPECT_TRUE(rc == 0 || !x.path || before == x.path); // init drops the path itself
            kesh_tov_error_free_ext(&e, tov_gpb_free, 0, 0);
            xpath_context_destroy(&x);
            return rc;
        };
        tov::test::allocation_points({call, 0, 12, s.benign, arrange});
    }
}

} // namespace
