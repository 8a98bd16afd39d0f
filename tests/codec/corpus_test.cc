// SPDX-License-Identifier: BSD-3-Clause
// Canonical encodings of random records of every message, through each message's own exported
// functions: each decodes, duplicates and encodes back to the same bytes. With TOV_CORPUS_DIR set they are also written out as the fuzz targets' seeds.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "support/records.hpp"
#include "public_codecs.hpp"

namespace tov::test {
namespace {

const Label kLabel("codec test: corpus");

TEST(Corpus, CanonicalEncodingsOfEveryMessageRoundTripByteForByte) {
    const char *dir = std::getenv("TOV_CORPUS_DIR");
    for (const PublicCodec &c : kPublicCodecs) {
        const detail::MessageDesc &d = *c.desc;
        SCOPED_TRACE(d.name);
        std::filesystem::path out;
        if (dir) {
            out = std::filesystem::path(dir) / d.name;
            std::filesystem::create_directories(out);
        }
        RecordFiller filler(0x5EED0000 + d.size, named_alloc, kLabel.ctx());
        Record a(d), b(d);
        const int count = d.field_count == 0 ? 1 : 40;
        for (int k = 0; k < count; ++k) {
            filler.fill(d, a.get(), 3);
            const Bytes canonical = encode(d, a.get());
            c.free(a.get(), named_free, 0);
            ASSERT_EQ(c.decode(b.get(), canonical.data(), static_cast<uint32_t>(canonical.size()), named_alloc,
                               kLabel.ctx()),
                      0);
            EXPECT_EQ(encode(d, b.get()), canonical) << k;
            ASSERT_EQ(c.duplicate(a.get(), b.get(), named_alloc, kLabel.ctx()), 0);
            c.free(b.get(), named_free, 0);
            EXPECT_EQ(encode(d, a.get()), canonical) << "the copy owns all it needs, " << k;
            c.free(a.get(), named_free, 0);
            if (dir) {
                std::ofstream file(out / ("seed-" + std::to_string(k)), std::ios::binary);
                file.write(reinterpret_cast<const char *>(canonical.data()), static_cast<std::streamsize>(canonical.size()));
            }
        }
    }
    EXPECT_EQ(kLabel.live(), 0u);
}

} // namespace
} // namespace tov::test
