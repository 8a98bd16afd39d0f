// The XPath builder: paths and aliases step by step with their exact sizes, the copy into an error
// record with its labels, and every allocation failing once and from then on.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>

#include "support/alloc.hpp"
#include "tov/gpb.h"
#include "tov/xpath.h"

namespace {

using tov::test::live_blocks;

uint64_t live_bytes(const char *label) {
    kor_named_stats s{};
    kor_named_get_stats(label, &s);
    return s.live_bytes;
}

const char *const kIfName[] = {"name"}, *const kEth0[] = {"eth0"};
const char *const kAB[] = {"a", "b"}, *const k12[] = {"1", "2"};

TEST(XPath, StepsAliasesAndTheErrorRecord) {
    XPathContext x{};
    ASSERT_EQ(xpath_context_init(&x), 0);
    const std::string inner = "ns1:interfaces/ns1:interface[name = 'eth0']";
    struct Step {
        const char *name, *ns;
        const char *const *names, *const *values;
        uint32_t keys;
        int rc;
        std::string path;
    } steps[] = {
        {"interface", "urn:a", kIfName, kEth0, 1, 0, "ns1:interface[name = 'eth0']"},
        {"interfaces", "urn:a", nullptr, nullptr, 0, 0, inner},
        {"top", "urn:b", nullptr, nullptr, 0, 0, "ns2:top/" + inner},
        {"config", nullptr, nullptr, nullptr, 0, 0, "config/ns2:top/" + inner},
        {"bad", "urn:c", kAB, nullptr, 2, 22, "config/ns2:top/" + inner},
        {nullptr, nullptr, nullptr, nullptr, 0, 22, "config/ns2:top/" + inner},
        {"l", nullptr, kAB, k12, 2, 0, "l[a = '1' and b = '2']/config/ns2:top/" + inner},
    };
    for (const Step &s : steps) {
        SCOPED_TRACE(s.path);
        EXPECT_EQ(xpath_prepend(&x, s.name, s.ns, s.names, s.values, s.keys), s.rc);
        EXPECT_EQ(x.path, s.path);
        EXPECT_EQ(live_bytes("xpath error string"), s.path.size() + 1); // sized exactly
    }
    EXPECT_EQ(live_blocks("namespace alias"), 2u); // urn:c was refused before its alias was made
    EXPECT_EQ(live_bytes("namespace alias"), 2u * 13);

    Error error{};
    ASSERT_EQ(xpath_to_tov_error(&x, &error), 0);
    const DataTree &p = error.error_path;
    EXPECT_EQ(p.value, steps[6].path);
    EXPECT_EQ(p.present[0], 1u << TOV_DATATREE_BIT_VALUE | 1u << TOV_DATATREE_BIT_ATTRIBUTES);
    ASSERT_EQ(p.attributes_count, 2u);
    std::vector<std::string> declared, expected; // in the map's own order
    for (kor_hashmap_tuple *t = kor_hashmap_first(x.aliases); t; t = kor_hashmap_next(x.aliases, t))
        expected.push_back("xmlns:" + std::string(static_cast<char *>(kor_hashmap_value(t))) + "=" +
                           static_cast<char *>(kor_hashmap_key(t)));
    for (uint32_t i = 0; i < p.attributes_count; ++i) {
        declared.push_back(std::string(p.attributes[i].name) + "=" + p.attributes[i].value);
        EXPECT_EQ(p.attributes[i].present[0], 3u);
    }
    EXPECT_EQ(declared, expected);
    std::sort(declared.begin(), declared.end());
    EXPECT_EQ(declared, (std::vector<std::string>{"xmlns:ns1=urn:a", "xmlns:ns2=urn:b"}));
    for (const char *label : {"copy of xpath path", "query transformer namespace attributes"})
        EXPECT_EQ(live_blocks(label), 1u) << label;
    for (const char *label : {"copy of xpath namespace tag", "prepended 'xmlns:' to xpath namespace value",
                              "copy of namespace for xpath attribute"})
        EXPECT_EQ(live_blocks(label), 2u) << label;
    EXPECT_EQ(xpath_to_tov_error(&x, &error), 22); // the path is there already
    kesh_tov_error_free_ext(&error, tov_gpb_free, 0, 0);
    xpath_context_destroy(&x);
    EXPECT_EQ(live_blocks(), 0u);

    XPathContext empty{};
    ASSERT_EQ(xpath_context_init(&empty), 0);
    Error e2{};
    EXPECT_EQ(xpath_to_tov_error(&empty, &e2), 0); // a present, null value and no declarations
    EXPECT_EQ(e2.error_path.value, nullptr);
    EXPECT_EQ(e2.error_path.present[0], 1u << TOV_DATATREE_BIT_VALUE);
    EXPECT_EQ(xpath_to_tov_error(nullptr, &e2), 22);
    xpath_context_destroy(&empty);
    xpath_context_destroy(nullptr);
    EXPECT_EQ(xpath_context_init(nullptr), 0);
}

// Each allocation fails in turn, once and from then on: 12 (or, for the path copy, which the error
// may lack, 0), the path unchanged by a failed prepend, and nothing live after destroy and release.
TEST(XPath, EveryAllocationFailureOnceAndPersistent) {
    struct Sweep {
        const char *what;
        std::function<int(XPathContext &, Error &)> call;
        const char *benign;
    } sweeps[] = {
        {"init", [](XPathContext &x, Error &) { return xpath_context_destroy(&x), xpath_context_init(&x); },
         ""},
        {"prepend", [](XPathContext &x, Error &) { return xpath_prepend(&x, "l", "urn:new", kAB, k12, 2); },
         ""},
        {"to error", [](XPathContext &x, Error &e) { return xpath_to_tov_error(&x, &e); },
         "copy of xpath path"},
    };
    for (const Sweep &s : sweeps) {
        for (uint32_t persistent : {0u, 1u}) {
            SCOPED_TRACE(std::string(s.what) + (persistent ? " persistent" : " once"));
            for (uint64_t k = 1;; ++k) {
                XPathContext x{};
                Error e{};
                ASSERT_EQ(xpath_context_init(&x), 0);
                ASSERT_EQ(xpath_prepend(&x, "top", "urn:b", kIfName, kEth0, 1), 0);
                ASSERT_EQ(xpath_prepend(&x, "config", "urn:a", nullptr, nullptr, 0), 0);
                const std::string before = x.path;
                kor_named_fail_config(k, persistent);
                const int rc = s.call(x, e);
                const uint64_t failures = kor_named_fail_count();
                const char *label = kor_named_last_failed_label();
                kor_named_fail_config(0, 0);
                const bool benign = label && std::strcmp(label, s.benign) == 0;
                EXPECT_EQ(rc, failures == 0 || benign ? 0 : 12) << k << " " << (label ? label : "");
                if (rc != 0 && std::string(s.what) == "prepend") {
                    EXPECT_EQ(x.path, before);
                }
                kesh_tov_error_free_ext(&e, tov_gpb_free, 0, 0);
                xpath_context_destroy(&x);
                EXPECT_EQ(live_blocks(), 0u) << k;
                if (failures == 0)
                    break;
            }
        }
    }
}

} // namespace
