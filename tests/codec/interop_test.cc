// SPDX-License-Identifier: BSD-3-Clause
// Interoperability with Google protobuf built from proto/tov.proto, in both directions, and the
// check that every codec table agrees with the schema's descriptors.
#include <gtest/gtest.h>
#include <google/protobuf/util/message_differencer.h>

#include <memory>

#include "support/records.hpp"
#include "public_codecs.hpp"
#include "tov.pb.h"

namespace tov::test {
namespace {

namespace pb = google::protobuf;
using detail::FieldDesc;
using detail::Kind;
using detail::MessageDesc;

const Label kLabel("codec test: interop");

const pb::Descriptor *descriptor_of(const MessageDesc &d) {
    // Through a generated class, which also links the schema in from its static library.
    return kesh::tov::datatree::descriptor()->file()->FindMessageTypeByName(d.name);
}

bool bit(const MessageDesc &d, const uint8_t *record, unsigned i) {
    return tov_bit_is_set(record + d.present_offset, i);
}
template <class T> T load(const uint8_t *p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

TEST(Schema, EveryTableMatchesTheProtoDescriptors) {
    for (const MessageDesc *d : detail::kAllMessages) {
        SCOPED_TRACE(d->name);
        const pb::Descriptor *pd = descriptor_of(*d);
        ASSERT_NE(pd, nullptr);
        ASSERT_EQ(pd->field_count(), d->field_count);
        for (unsigned i = 0; i < d->field_count; ++i) {
            const FieldDesc &f = d->fields[i];
            const pb::FieldDescriptor *pf = pd->FindFieldByNumber(static_cast<int>(f.number));
            ASSERT_NE(pf, nullptr) << f.number;
            EXPECT_EQ(pf->index(), static_cast<int>(i)) << pf->name() << ": presence bit = declaration order";
            EXPECT_EQ(pf->name(), f.name);
            const bool repeated = f.kind == Kind::Messages || f.kind == Kind::Strings;
            EXPECT_EQ(pf->is_repeated(), repeated) << pf->name();
            using PF = pb::FieldDescriptor;
            const PF::Type type = f.kind == Kind::Varint32  ? PF::TYPE_UINT32
                                  : f.kind == Kind::Bool     ? PF::TYPE_BOOL
                                  : f.kind == Kind::Varint64 ? PF::TYPE_UINT64
                                  : f.kind == Kind::String || f.kind == Kind::Strings ? PF::TYPE_STRING
                                                                                       : PF::TYPE_MESSAGE;
            ASSERT_EQ(pf->type(), type) << pf->name();
            if (type == PF::TYPE_UINT32) {
                EXPECT_EQ(pf->default_value_uint32(), f.default_value) << pf->name();
            } else if (type == PF::TYPE_MESSAGE) {
                EXPECT_EQ(pf->message_type()->name(), detail::sub_of(*d, f).name) << pf->name();
            }
        }
    }
}

// Compares a record with a protobuf message field by field. For a decoded record every presence
// bit must equal the field's presence on the wire, and an absent field holds the schema's default
// (decoding starts afresh); for a record filled by hand, a field counts as sent by the encoder's
// rules (strings need a pointer, inline records go when they have content).
void expect_same(const MessageDesc &d, const uint8_t *rec, const pb::Message &m, bool decoded,
                 const std::string &path) {
    const pb::Reflection *r = m.GetReflection();
    for (unsigned i = 0; i < d.field_count; ++i) {
        const FieldDesc &f = d.fields[i];
        const pb::FieldDescriptor *pf = m.GetDescriptor()->FindFieldByNumber(static_cast<int>(f.number));
        const std::string where = path + "." + pf->name();
        const bool b = bit(d, rec, i);
        const uint8_t *member = rec + f.offset;
        bool sent = b;
        switch (f.kind) {
        case Kind::String:
            sent = b && load<const char *>(member);
            break;
        case Kind::Message:
            sent = b || detail::encode(*f.sub, member, nullptr, 0, nullptr, nullptr) != 0;
            break;
        case Kind::Messages:
        case Kind::Strings:
            sent = b && load<uint32_t>(rec + f.count_offset) && load<const void *>(member);
            break;
        default:
            break;
        }
        const bool has = pf->is_repeated() ? r->FieldSize(m, pf) > 0 : r->HasField(m, pf);
        ASSERT_EQ(has, sent) << where;
        if (decoded) {
            ASSERT_EQ(b, has) << where << " (presence bit of a decoded record)";
        }
        if (!has && !decoded) continue;
        switch (f.kind) {
        case Kind::Varint32:
            EXPECT_EQ(r->GetUInt32(m, pf), load<uint32_t>(member)) << where;
            break;
        case Kind::Bool:
            EXPECT_EQ(r->GetBool(m, pf), load<uint8_t>(member) != 0) << where;
            if (decoded) {
                EXPECT_LE(load<uint8_t>(member), 1) << where;
            }
            break;
        case Kind::Varint64:
            EXPECT_EQ(r->GetUInt64(m, pf), load<uint64_t>(member)) << where;
            break;
        case Kind::String:
            if (!has) {
                EXPECT_EQ(load<const char *>(member), nullptr) << where;
            } else {
                EXPECT_EQ(r->GetString(m, pf), load<const char *>(member)) << where;
            }
            break;
        case Kind::Flag:
            break;
        case Kind::Message:
            expect_same(*f.sub, member, r->GetMessage(m, pf), decoded, where);
            break;
        case Kind::Messages: {
            const MessageDesc &sub = detail::sub_of(d, f);
            const uint32_t count = load<uint32_t>(rec + f.count_offset);
            ASSERT_EQ(r->FieldSize(m, pf), static_cast<int>(count)) << where;
            const auto *elements = load<const uint8_t *>(member);
            for (uint32_t k = 0; k < count; ++k)
                expect_same(sub, elements + k * sub.size, r->GetRepeatedMessage(m, pf, static_cast<int>(k)), decoded,
                            where + "[" + std::to_string(k) + "]");
            break;
        }
        case Kind::Strings: {
            const uint32_t count = load<uint32_t>(rec + f.count_offset);
            ASSERT_EQ(r->FieldSize(m, pf), static_cast<int>(count)) << where;
            auto *const *items = load<char *const *>(member);
            for (uint32_t k = 0; k < count; ++k)
                EXPECT_EQ(r->GetRepeatedString(m, pf, static_cast<int>(k)), items[k] ? items[k] : "") << where;
            break;
        }
        }
    }
}

// Both ways for every message, from random records of the codec's tables. The codec's bytes parse
// in protobuf to the same values and, in field-number order, protobuf writes them back byte for
// byte; those bytes of protobuf's (its own order) decode to the same values, and re-encode to a
// message protobuf finds equal. The tables' fields are checked against the schema above, so a
// field the tables lack cannot hide from this.
TEST(Interop, RandomMessagesOfEveryTypeBothWays) {
    for (const PublicCodec &codec : kPublicCodecs) {
        const MessageDesc &d = *codec.desc;
        SCOPED_TRACE(d.name);
        const pb::Message *prototype = pb::MessageFactory::generated_factory()->GetPrototype(descriptor_of(d));
        RecordFiller records(0x7EE5 + d.size, named_alloc, kLabel.ctx());
        const int rounds = d.field_count == 0 ? 5 : 300;
        // Deep enough that the envelopes carry payloads whose data trees have children of their own.
        const int depth = d.field_count > 10 ? 6 : 4;
        const bool in_order = std::string_view(d.name) != "edit_config" && std::string_view(d.name) != "request";
        Record rec(d);
        for (int round = 0; round < rounds; ++round) {
            // varied depth and fan-out
            records.fill(d, rec.get(), static_cast<int>(records.pick(depth + 2)), 1 + records.pick(5));
            const Bytes mine = encode(d, rec.get());
            std::unique_ptr<pb::Message> m(prototype->New()), back(prototype->New());
            ASSERT_TRUE(m->ParseFromArray(mine.data(), static_cast<int>(mine.size())));
            expect_same(d, static_cast<const uint8_t *>(rec.get()), *m, false, d.name);
            codec.free(rec.get(), named_free, 0);
            const std::string wire = m->SerializeAsString();
            if (in_order) {
                EXPECT_EQ(wire, std::string(mine.begin(), mine.end())) << "field-number order is protobuf's order";
            }
            ASSERT_EQ(codec.decode(rec.get(), reinterpret_cast<const uint8_t *>(wire.data()),
                                   static_cast<uint32_t>(wire.size()), named_alloc, kLabel.ctx()),
                      0);
            expect_same(d, static_cast<const uint8_t *>(rec.get()), *m, true, d.name);
            const Bytes again = encode(d, rec.get());
            ASSERT_TRUE(back->ParseFromArray(again.data(), static_cast<int>(again.size())));
            EXPECT_TRUE(pb::util::MessageDifferencer::Equals(*m, *back));
            codec.free(rec.get(), named_free, 0);
            ASSERT_EQ(kLabel.live(), 0u);
        }
    }
}

} // namespace
} // namespace tov::test
