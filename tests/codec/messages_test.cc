// The wire details of individual messages: defaults, exact bytes, and the deliberate
// departures from plain protobuf behaviour that each message keeps.
#include <gtest/gtest.h>

#include <algorithm>

#include "support/records.hpp"
#include "public_codecs.hpp"

namespace tov::test {
namespace {

using namespace detail;

const Label kLabel("codec test: messages");

template <class T> int32_t decode(const char *message, T &record, const Bytes &in, Arena &arena) {
    return public_codec(message).decode(&record, in.data(), static_cast<uint32_t>(in.size()), Arena::alloc, arena.ctx());
}
template <class T> Bytes encode_public(const char *message, const T &record) {
    const PublicCodec &c = public_codec(message);
    Bytes out(c.encode(&record, nullptr, 0, nullptr, nullptr));
    c.encode(&record, out.data(), static_cast<uint32_t>(out.size()), nullptr, nullptr);
    return out;
}

TEST(DataTreeMessages, ExactBytes) {
    DataTree t{};
    t.name = text("ab");
    tov_bit_set(t.present, TOV_DATATREE_BIT_NAME);
    EXPECT_EQ(encode_public("datatree", t), (Bytes{0x0A, 0x02, 'a', 'b'}));
    tov_bit_set(t.present, TOV_DATATREE_BIT_OPERATION); // merge is 0, and still sent
    EXPECT_EQ(encode_public("datatree", t), (Bytes{0x0A, 0x02, 'a', 'b', 0x28, 0x00}));

    Arena arena;
    DataTree d;
    ASSERT_EQ(decode("datatree", d, {0x5A, 0x00}, arena), 0);
    EXPECT_TRUE(tov_bit_is_set(d.present, TOV_DATATREE_BIT_INSERT));
    EXPECT_EQ(d.insert.present[0], 0) << "an empty insert has no fields";
}

TEST(OperationMessages, SessionLockAndDatastore) {
    Arena arena;
    Datastore ds;
    ASSERT_EQ(decode("datastore", ds, {}, arena), 0);
    EXPECT_EQ(ds.name, nullptr);
    EXPECT_EQ(ds.present[0], 0);
    EXPECT_EQ(decode("datastore", ds, {0x0A, 0x01, 'a', 0x0A, 0x01, 'b'}, arena), -1);
    EXPECT_STREQ(ds.name, "a") << "what was decoded before the failure stays, to be freed";
    kesh_tov_datastore_free_ext(&ds, Arena::release, arena.ctx());

    StopSession stop{};
    tov_bit_set(stop.present, TOV_STOP_SESSION_BIT_SESSION_ID);
    EXPECT_EQ(encode_public("stop_session", stop), (Bytes{0x08, 0x00}));

    Lock lock{};
    EXPECT_EQ(encode_public("lock", lock), Bytes{});
    tov_bit_set(lock.present, TOV_LOCK_BIT_TARGET);
    EXPECT_EQ(encode_public("lock", lock), (Bytes{0x0A, 0x00}));

    StartSession start{};
    tov_bit_set(start.present, TOV_START_SESSION_BIT_STRING_1); // bit without a string
    start.number_3 = 7;
    tov_bit_set(start.present, TOV_START_SESSION_BIT_NUMBER_3);
    EXPECT_EQ(encode_public("start_session", start), (Bytes{0x18, 0x07}));

    DiscardChanges dc{};
    EXPECT_EQ(encode_public("discard_changes", dc), Bytes{});
    EXPECT_EQ(decode("discard_changes", dc, {0x08, 0x01, 0x12, 0x01, 'x'}, arena), 0);
    EXPECT_EQ(decode("discard_changes", dc, {0x0B}, arena), -2) << "well-formed input only";

    // A second target decodes into the same datastore: the first name is dropped, not freed.
    ASSERT_EQ(decode("lock", lock, {0x0A, 0x03, 0x0A, 0x01, 'a', 0x0A, 0x03, 0x0A, 0x01, 'b'}, arena), 0);
    EXPECT_STREQ(lock.target.name, "b");
    kesh_tov_lock_free_ext(&lock, Arena::release, arena.ctx(), 0);
    EXPECT_EQ(arena.live(), 1u);
}

TEST(OperationMessages, ConfigurationAndRetrieval) {
    Arena arena;
    Commit commit;
    ASSERT_EQ(decode("commit", commit, {}, arena), 0);
    EXPECT_EQ(commit.confirm_timeout, 600u);
    EXPECT_EQ(commit.confirmed, 0);
    EXPECT_EQ(commit.present[0], 0);
    EXPECT_EQ(encode_public("commit", commit), Bytes{}) << "the default is not sent";
    ASSERT_EQ(decode("commit", commit, {0x08, 0x02}, arena), 0);
    EXPECT_EQ(commit.confirmed, 1);
    EXPECT_EQ(encode_public("commit", commit), (Bytes{0x08, 0x01}));
    EXPECT_EQ(decode("commit", commit, {0x1A, 0x00, 0x1A, 0x00}, arena), -1);

    GetConfig gc{};
    tov_bit_set(gc.present, TOV_GET_CONFIG_BIT_SOURCE);
    tov_bit_set(gc.present, TOV_GET_CONFIG_BIT_FILTER);
    EXPECT_EQ(encode_public("get_config", gc), (Bytes{0x0A, 0x00, 0x12, 0x00}));

    CopyConfig cc{};
    cc.target.name = text("r");
    cc.target_url = text("u");
    tov_bit_set(cc.target.present, TOV_DATASTORE_BIT_NAME);
    tov_bit_set(cc.present, TOV_COPY_CONFIG_BIT_TARGET_URL);
    EXPECT_EQ(encode_public("copy_config", cc), (Bytes{0x0A, 0x03, 0x0A, 0x01, 'r', 0x12, 0x01, 'u'}));

    // A failure inside an embedded part comes out unchanged and leaves its bit clear.
    Get get;
    EXPECT_EQ(decode("get", get, {0x10, 0x05, 0x0A, 0x02, 0x08, 0x80}, arena), -1);
    EXPECT_EQ(get.get_option, 5u);
    EXPECT_FALSE(tov_bit_is_set(get.present, TOV_GET_BIT_FILTER));
}

TEST(OperationMessages, CliAndRpc) {
    Arena arena;
    CliConfig cli{};
    cli.command = text("");
    tov_bit_set(cli.present, TOV_CLI_CONFIG_BIT_COMMAND);
    EXPECT_EQ(encode_public("cli_config", cli), (Bytes{0x0A, 0x00}));
    CliConfig back;
    ASSERT_EQ(decode("cli_config", back, {0x0A, 0x00}, arena), 0);
    EXPECT_STREQ(back.command, "");
    EXPECT_TRUE(tov_bit_is_set(back.present, TOV_CLI_CONFIG_BIT_COMMAND));
    cli = CliConfig{};
    cli.cli_option = 300;
    tov_bit_set(cli.present, TOV_CLI_CONFIG_BIT_CLI_OPTION);
    EXPECT_EQ(encode_public("cli_config", cli), (Bytes{0x10, 0xAC, 0x02}));
    CliShow show;
    EXPECT_EQ(decode("cli_show", show, {0x0A, 0x00, 0x0A, 0x00}, arena), -1);
    InvokeRpc rpc{};
    rpc.rpc_option = 2;
    tov_bit_set(rpc.present, TOV_INVOKE_RPC_BIT_RPC_OPTION);
    EXPECT_EQ(encode_public("invoke_rpc", rpc), (Bytes{0x08, 0x02}));
}

TEST(SchemaMessages, DefaultsBooleansAndSixtyFourBits) {
    Arena arena;
    LoggingSet ls;
    ASSERT_EQ(decode("logging_set", ls, {}, arena), 0);
    EXPECT_EQ(ls.value_3, 1u);
    EXPECT_EQ(ls.present[0], 0);
    EXPECT_EQ(encode_public("logging_set", ls), Bytes{});
    ASSERT_EQ(decode("logging_set", ls, {0x28, 0x07}, arena), 0);
    EXPECT_EQ(ls.flag_5, 1);
    EXPECT_EQ(encode_public("logging_set", ls), (Bytes{0x28, 0x01}));

    MdtYangResolve mdt{};
    mdt.value_1 = (uint64_t{1} << 40) + 5;
    tov_bit_set(mdt.present, TOV_MDT_YANG_RESOLVE_BIT_VALUE_1);
    const Bytes wire = encode_public("mdt_yang_resolve", mdt);
    EXPECT_EQ(wire, (Bytes{0x08, 0x85, 0x80, 0x80, 0x80, 0x80, 0x20}));
    MdtYangResolve back;
    ASSERT_EQ(decode("mdt_yang_resolve", back, wire, arena), 0);
    EXPECT_EQ(back.value_1, mdt.value_1);

    Schema schema{};
    schema.flag_11 = 1;
    tov_bit_set(schema.present, TOV_SCHEMA_BIT_FLAG_11);
    EXPECT_EQ(encode_public("schema", schema), (Bytes{0x58, 0x01}));

    SchemasList list;
    EXPECT_EQ(decode("schemas_list", list, {0x08, 0x01, 0x0A, 0x00}, arena), 0);
    uint32_t span_count = 4;
    TovSpan spans[4];
    EXPECT_EQ(kesh_tov_schemas_list_encode_ext(&list, nullptr, 0, spans, &span_count), 0u);
    EXPECT_EQ(span_count, 0u);
}

TEST(Envelopes, RequestDefaultsKeysAndPayloads) {
    Arena arena;
    Request r;
    ASSERT_EQ(decode("request", r, {}, arena), 0);
    EXPECT_EQ(r.operation, 0u);
    EXPECT_EQ(r.present[0] | r.present[1] | r.present[2], 0);
    EXPECT_EQ(r.commit.confirm_timeout, 600u) << "payload defaults without the payload";
    EXPECT_EQ(r.logging_set.value_3, 1u);

    // Operation 15 (cli-config) travels in field 48; field 41 is skipped like any unknown field.
    ASSERT_EQ(decode("request", r, {0x08, 0x0F, 0xCA, 0x02, 0x01, 0x00, 0x82, 0x03, 0x02, 0x10, 0x03}, arena), 0);
    EXPECT_EQ(r.operation, TOV_OP_CLI_CONFIG);
    EXPECT_EQ(r.cli_config.cli_option, 3u);
    EXPECT_TRUE(tov_bit_is_set(r.present, TOV_REQUEST_BIT_CLI_CONFIG));
    EXPECT_FALSE(tov_bit_is_set(r.present, TOV_REQUEST_BIT_CLI_SHOW));
    EXPECT_EQ(decode("request", r, {0x1A, 0x00, 0x1A, 0x00}, arena), -1) << "message_id twice";

    Request out{};
    out.operation = TOV_OP_DELETE_CONFIG; // no payload field in the envelope
    tov_bit_set(out.present, TOV_REQUEST_BIT_OPERATION);
    EXPECT_EQ(encode_public("request", out), (Bytes{0x08, 0x09}));
    out = Request{};
    tov_bit_set(out.present, TOV_REQUEST_BIT_DISCARD_CHANGES);
    EXPECT_EQ(encode_public("request", out), (Bytes{0xBA, 0x02, 0x00}));
    tov_bit_set(out.present, TOV_REQUEST_BIT_SCHEMAS_LIST);
    out.invoke_rpc.rpc_option = 1;
    tov_bit_set(out.invoke_rpc.present, TOV_INVOKE_RPC_BIT_RPC_OPTION); // content, payload bit clear
    EXPECT_EQ(encode_public("request", out), (Bytes{0xBA, 0x02, 0x00, 0xF2, 0x02, 0x00, 0x9A, 0x03, 0x02, 0x08, 0x01}));
    Request back;
    ASSERT_EQ(decode("request", back, encode_public("request", out), arena), 0);
    EXPECT_TRUE(tov_bit_is_set(back.present, TOV_REQUEST_BIT_DISCARD_CHANGES));
    EXPECT_TRUE(tov_bit_is_set(back.present, TOV_REQUEST_BIT_SCHEMAS_LIST));
    EXPECT_TRUE(tov_bit_is_set(back.present, TOV_REQUEST_BIT_INVOKE_RPC));

    // Each payload key: fields 32 to 47 are (0x82 + 8 (n - 32)) 0x02, 48 to 51 are 0x82.. 0x03.
    for (unsigned i = 3; i < kRequest.field_count; ++i) {
        Request one{};
        tov_bit_set(one.present, i);
        const uint32_t n = kRequest.fields[i].number;
        const Bytes expected = {static_cast<uint8_t>(0x82 + 8 * ((n - 32) % 16)), static_cast<uint8_t>(n < 48 ? 2 : 3), 0};
        EXPECT_EQ(encode_public("request", one), expected) << n;
    }
}

TEST(Envelopes, ErrorsAndResults) {
    Arena arena;
    Error e{};
    e.error_tag = text("t");
    tov_bit_set(e.present, TOV_ERROR_BIT_ERROR_TAG);
    e.error_message.text = text("m");
    tov_bit_set(e.error_message.present, TOV_ERROR_MESSAGE_BIT_TEXT); // no bit on the inline record
    EXPECT_EQ(encode_public("error", e), (Bytes{0x12, 0x01, 't', 0x32, 0x03, 0x12, 0x01, 'm'}));

    RequestResult rr{};
    rr.error = e;
    EXPECT_EQ(encode_public("request_result", rr), (Bytes{0x8A, 0x02, 0x08, 0x12, 0x01, 't', 0x32, 0x03, 0x12, 0x01, 'm'}));
    ASSERT_EQ(decode("request_result", rr, {}, arena), 0);
    EXPECT_EQ(rr.success, 0);
    EXPECT_EQ(rr.present[0], 0);

    Response resp{};
    tov_bit_set(resp.present, TOV_RESPONSE_BIT_ERRORS); // count 0: nothing
    EXPECT_EQ(encode_public("response", resp), Bytes{});
    EXPECT_EQ(decode("response", resp, {0x92, 0x02, 0x00, 0x8A, 0x02, 0x00, 0x92, 0x02, 0x00}, arena), -1);
    ASSERT_EQ(decode("response", resp, {0x08, 0x05, 0x92, 0x02, 0x00, 0x92, 0x02, 0x02, 0x08, 0x03}, arena), 0);
    EXPECT_EQ(resp.success, 1);
    ASSERT_EQ(resp.errors_count, 2u);
    EXPECT_EQ(resp.errors[1].error_type, 3u);
}

} // namespace
} // namespace tov::test
