// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <sensors/sensor_tlm.h>

#include <bit>
#include <cerrno>
#include <cstring>
#include <vector>

#include "platform/failpoint.h"
#include "platform/shm_telemetry.h"
#include "platform/telemetry_test_util.h"

namespace {

// What a vision process publishes: its own record, its own order.
struct published_position {
    int64_t last_ref_image_ts;
    float x, y, z;
    float discriminable_ft_ratio;
    int32_t status;
    uint8_t pad[4];
};

constexpr tlm_field_desc kPublishedFields[] = {
    {offsetof(published_position, last_ref_image_ts), "last_ref_image_ts", TLM_TYPE_INT64, 0, 8, 1, {}},
    {offsetof(published_position, x), "x", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(published_position, y), "y", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(published_position, z), "z", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(published_position, discriminable_ft_ratio), "discriminable_ft_ratio", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(published_position, status), "status", TLM_TYPE_INT32, 0, 4, 1, {}},
};
constexpr tlm_struct_desc kPublished{0, 6, kPublishedFields};

// What the consumer wants, at other offsets.
struct wanted_position {
    float x, y, z;
    float ratio;
    int32_t status;
    uint8_t pad[4];
    int64_t last_ref;
};
constexpr tlm_field_desc kWantedFields[] = {
    {offsetof(wanted_position, x), "x", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(wanted_position, y), "y", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(wanted_position, z), "z", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(wanted_position, ratio), "discriminable_ft_ratio", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(wanted_position, status), "status", TLM_TYPE_INT32, 0, 4, 1, {}},
    {offsetof(wanted_position, last_ref), "last_ref_image_ts", TLM_TYPE_INT64, 0, 8, 1, {}},
};
constexpr tlm_struct_desc kWanted{0, 6, kWantedFields};

// A record of one float, for the tests of producers and of section files.
constexpr tlm_field_desc kValueField[] = {{0, "value", TLM_TYPE_FLOAT, 0, 4, 1, {}}};
constexpr tlm_struct_desc kValue{0, 1, kValueField};

// A child that publishes one position per step it is given ('q' ends it,
// 'x' ends it without destroying its producer, as a crash would).
int position_producer(const child_process::link &link, uint32_t count, int first = 1)
{
    published_position rec{};
    shm_producer *p = producer_create("vcam_position", count, 10000);
    if (!p || producer_register_struct(p, &rec, nullptr, &kPublished) < 0 || producer_complete(p) < 0)
        return 1;
    link.signal();
    for (int i = first;; i++) {
        char c = link.wait();
        if (c == 'x')
            return 0;
        if (c != '.')
            break;
        rec = {1000000000000LL + i, float(i), float(i) / 2, -float(i), 0.25f, 40 + i, {}};
        timespec ts{100 + i, 5};
        if (producer_put_sample(p, &ts) < 0)
            return 2;
        link.signal();
    }
    producer_destroy(p);
    return 0;
}

shm_consumer *struct_consumer(void *dest, const char *section, const tlm_struct_desc *desc)
{
    shm_consumer *c = consumer_create();
    EXPECT_NE(c, nullptr);
    EXPECT_EQ(consumer_register_struct(c, dest, section, desc), 0);
    EXPECT_EQ(consumer_complete(c), 0);
    return c;
}

// Tells the child to end properly and expects it to have.
void finish(child_process &child)
{
    child.step('q');
    EXPECT_EQ(child.join(), 0);
}

// Lets the child publish its next sample; false when it ended instead.
bool publish(child_process &child)
{
    child.step();
    return child.wait_step();
}

int read_latest(shm_consumer *c)
{
    return consumer_get_sample_at(c, nullptr, 0, nullptr);
}

TEST(ShmTelemetry, AnotherProcessReadsTheSampleFieldByField)
{
    tlm_root root;
    child_process child([](const auto &link) { return position_producer(link, 16); });
    ASSERT_TRUE(child.wait_step());
    ASSERT_TRUE(publish(child));

    wanted_position dest{};
    shm_consumer *c = struct_consumer(&dest, "vcam_position", &kWanted);
    timespec ts{};
    ASSERT_EQ(consumer_get_sample_at(c, nullptr, 0, &ts), 0);
    EXPECT_EQ(dest.x, 1.0f);
    EXPECT_EQ(dest.y, 0.5f);
    EXPECT_EQ(dest.z, -1.0f);
    EXPECT_EQ(dest.ratio, 0.25f);
    EXPECT_EQ(dest.status, 41);
    EXPECT_EQ(dest.last_ref, 1000000000001LL);
    EXPECT_EQ(ts.tv_sec, 101);
    EXPECT_EQ(ts.tv_nsec, 5);

    ASSERT_TRUE(publish(child));
    ASSERT_EQ(read_latest(c), 0);
    EXPECT_EQ(dest.status, 42);

    finish(child);
    consumer_destroy(c);
}

// One consumer, completed before any producer exists, through the life of
// its section: the section appears, its producer dies without a word, the
// file is moved away and put back, a new producer replaces it, and that one
// ends properly.
TEST(ShmTelemetry, ConsumerFollowsItsSectionFromBeforeItsProducerToAfterARestart)
{
    tlm_root root;
    wanted_position dest{};
    dest.status = -7;
    shm_consumer *c = struct_consumer(&dest, "vcam_position", &kWanted);
    EXPECT_EQ(read_latest(c), -ENOENT);
    {
        child_process first([](const auto &link) { return position_producer(link, 8); });
        ASSERT_TRUE(first.wait_step());
        // The section exists but holds nothing yet: try again, destination untouched.
        EXPECT_EQ(read_latest(c), -EAGAIN);
        EXPECT_EQ(dest.status, -7);
        for (int i = 0; i < 3; i++)
            ASSERT_TRUE(publish(first));
        ASSERT_EQ(read_latest(c), 0);
        EXPECT_EQ(dest.status, 43);
        first.step('x'); // ends without destroying its producer: the file stays, not marked closed
        EXPECT_EQ(first.join(), 0);
    }
    // Still readable, copied again over what the owner wrote: nothing said the producer has gone.
    dest.status = 0;
    ASSERT_EQ(read_latest(c), 0);
    EXPECT_EQ(dest.status, 43);

    std::string aside = root.dir() + "/aside";
    ASSERT_EQ(rename(root.file("vcam_position").c_str(), aside.c_str()), 0);
    EXPECT_TRUE(eventually([&] { return read_latest(c) == -ENOENT; }));
    ASSERT_EQ(rename(aside.c_str(), root.file("vcam_position").c_str()), 0);
    dest.status = 0;
    EXPECT_EQ(read_latest(c), 0);
    EXPECT_EQ(dest.status, 43);

    // Its samples have the numbers the first one's had, not their values.
    child_process second([](const auto &link) { return position_producer(link, 8, 11); });
    ASSERT_TRUE(second.wait_step());
    EXPECT_EQ(read_latest(c), -EAGAIN);
    for (int i = 0; i < 3; i++)
        ASSERT_TRUE(publish(second));
    ASSERT_EQ(read_latest(c), 0);
    EXPECT_EQ(dest.status, 53);

    // A producer that ends removes its section; reads fail until one comes back.
    finish(second);
    EXPECT_EQ(read_latest(c), -ENOENT);
    consumer_destroy(c);
}

// The gimbal's entries: several fields of one section, latest first.
struct gimbal_state {
    float ef_rate[3];
    float w, x;
};
constexpr tlm_field_desc kGimbalFields[] = {
    {offsetof(gimbal_state, ef_rate), "ef_rate", TLM_TYPE_FLOAT, 0, 4, 3, {}},
    {offsetof(gimbal_state, w), "ef_q.w", TLM_TYPE_FLOAT, 0, 4, 1, {}},
    {offsetof(gimbal_state, x), "ef_q.x", TLM_TYPE_FLOAT, 0, 4, 1, {}},
};
constexpr tlm_struct_desc kGimbal{0, 3, kGimbalFields};

struct gimbal_arrays {
    float ef_rate[5][3];
    float w[5];
    float x[5];
    timespec times[5];
};

TEST(ShmTelemetry, HistoryGivesTheLatestFirstAndAsManyEarlierSamplesAsTheRingHolds)
{
    struct row {
        uint32_t ring;
        int written;
        uint32_t before;
        uint32_t expect_before;
    };
    const row rows[] = {
        {16, 10, 4, 4}, // plenty
        {16, 3, 4, 2},  // fewer written than asked
        {4, 10, 4, 3},  // the ring holds only 4
        {16, 1, 4, 0},  // the latest alone
        {16, 10, 0, 0}, // the latest only, by request
        {16, 10, 9, 4}, // no more than the destinations hold
    };
    for (const row &r : rows) {
        SCOPED_TRACE(testing::Message() << "ring " << r.ring << " written " << r.written << " before " << r.before);
        tlm_root root;
        gimbal_state s{};
        shm_producer *p = producer_create("gimbal_stab", r.ring, 1000);
        ASSERT_EQ(producer_register_struct(p, &s, "est.state", &kGimbal), 0);
        ASSERT_EQ(producer_complete(p), 0);
        for (int i = 0; i < r.written; i++) {
            s = {{float(i), float(i) + 0.5f, float(i) + 0.25f}, float(i) * 10, float(i) * 100};
            timespec ts{i, 0};
            ASSERT_EQ(producer_put_sample(p, &ts), 0);
        }
        gimbal_arrays g;
        memset(&g, 0xff, sizeof g);
        const tlm_array_entry entries[] = {
            {g.ef_rate, "gimbal_stab.est.state.ef_rate", TLM_TYPE_FLOAT, 0, 4, 3, 5, g.times},
            {g.w, "gimbal_stab.est.state.ef_q.w", TLM_TYPE_FLOAT, 0, 4, 1, 5, nullptr},
            {g.x, "gimbal_stab.est.state.ef_q.x", TLM_TYPE_FLOAT, 0, 4, 1, 5, nullptr},
        };
        shm_consumer *c = consumer_create();
        ASSERT_EQ(consumer_register_array(c, entries, 3), 0);
        ASSERT_EQ(consumer_complete(c), 0);
        uint32_t before = 99;
        uint32_t after = 99;
        ASSERT_EQ(consumer_get_samples(c, nullptr, 0, r.before, 0, &before, &after), 0);
        EXPECT_EQ(before, r.expect_before);
        EXPECT_EQ(after, 0u);
        for (uint32_t k = 0; k <= r.expect_before; k++) {
            float i = float(r.written - 1 - int(k));
            EXPECT_EQ(g.ef_rate[k][0], i);
            EXPECT_EQ(g.ef_rate[k][1], i + 0.5f);
            EXPECT_EQ(g.ef_rate[k][2], i + 0.25f);
            EXPECT_EQ(g.w[k], i * 10);
            EXPECT_EQ(g.x[k], i * 100);
            EXPECT_EQ(g.times[k].tv_sec, int64_t(i));
        }
        // Beyond the samples delivered nothing is written.
        for (uint32_t k = r.expect_before + 1; k < 5; k++)
            EXPECT_EQ(std::bit_cast<uint32_t>(g.w[k]), 0xffffffffu) << k;
        EXPECT_EQ(consumer_get_samples(c, nullptr, 0, 4, 1, &before, &after), -EOPNOTSUPP);
        timespec when{1, 0};
        EXPECT_EQ(consumer_get_samples(c, &when, 0, 4, 0, &before, &after), -EOPNOTSUPP);
        consumer_destroy(c);
        producer_destroy(p);
    }
}

TEST(ShmTelemetry, FieldsAreMatchedByNameAndAMismatchIsRefusedOnce)
{
    struct row {
        const char *what;
        tlm_field_desc field;
        const char *message;
    };
    const row rows[] = {
        {"type", {0, "status", TLM_TYPE_UINT32, 0, 4, 1, {}},
         "section \"vcam_position\" field \"status\": expected u32[1] (type 6, 4-byte elements), the section has "
         "i32[1] (type 5, 4-byte elements)"},
        {"size", {0, "last_ref_image_ts", TLM_TYPE_INT32, 0, 4, 1, {}},
         "section \"vcam_position\" field \"last_ref_image_ts\": expected i32[1] (type 5, 4-byte elements), the "
         "section has i64[1] (type 7, 8-byte elements)"},
        {"count", {0, "x", TLM_TYPE_FLOAT, 0, 4, 3, {}},
         "section \"vcam_position\" field \"x\": expected f32[3] (type 9, 4-byte elements), the section has f32[1] "
         "(type 9, 4-byte elements)"},
        {"name", {0, "w", TLM_TYPE_FLOAT, 0, 4, 1, {}}, "section \"vcam_position\" has no field \"w\""},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        tlm_root root;
        child_process child([](const auto &link) { return position_producer(link, 4); });
        ASSERT_TRUE(child.wait_step());
        ASSERT_TRUE(publish(child));

        log_capture cap;
        uint8_t dest[64] = {};
        const tlm_struct_desc desc{0, 1, &r.field};
        shm_consumer *c = struct_consumer(dest, "vcam_position", &desc);
        EXPECT_EQ(consumer_get_sample_at(c, nullptr, 0, nullptr), -EPROTO);
        EXPECT_EQ(consumer_get_sample_at(c, nullptr, 0, nullptr), -EPROTO);
        EXPECT_EQ(cap.texts("shm_telemetry"), std::vector<std::string>{r.message});
        finish(child);
        consumer_destroy(c);
    }
}

TEST(ShmTelemetry, ReadersNeverSeeATornSample)
{
    // Every byte of a sample carries the same counter as its timestamp; a
    // small ring and a fast writer make the reader race the writer all the
    // time. The writer goes on until the reader has checked enough samples
    // (a stop file says so), however the two processes get scheduled.
    struct block {
        uint32_t words[256];
    };
    static const tlm_field_desc fields[] = {{0, "words", TLM_TYPE_UINT32, 0, 4, 256, {}}};
    static const tlm_struct_desc desc{0, 1, fields};
    tlm_root root;
    static std::string stop_file;
    stop_file = root.path() + "/stop";
    constexpr int kChecked = 300;
    child_process child([](const auto &link) {
        static block b;
        shm_producer *p = producer_create("torn", 2, 1);
        if (!p || producer_register_struct(p, &b, nullptr, &desc) < 0 || producer_complete(p) < 0)
            return 1;
        link.signal();
        for (uint32_t i = 1; i < 50000000u; i++) {
            for (uint32_t &w : b.words)
                w = i;
            timespec ts{i, 0};
            producer_put_sample(p, &ts);
            if (i % 1024 == 0 && access(stop_file.c_str(), F_OK) == 0)
                break;
        }
        link.signal();
        link.wait();
        producer_destroy(p);
        return 0;
    });
    ASSERT_TRUE(child.wait_step());
    block dest{};
    shm_consumer *c = struct_consumer(&dest, "torn", &desc);
    int good = 0;
    int last_seen = 0;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (good < kChecked && std::chrono::steady_clock::now() < deadline) {
        timespec ts{};
        int r = consumer_get_sample_at(c, nullptr, 0, &ts);
        if (r == -EAGAIN)
            continue;
        ASSERT_EQ(r, 0);
        for (uint32_t w : dest.words)
            ASSERT_EQ(w, uint32_t(ts.tv_sec));
        ASSERT_GE(ts.tv_sec, last_seen);
        if (ts.tv_sec != last_seen)
            good++;
        last_seen = int(ts.tv_sec);
    }
    write_file(stop_file, "");
    EXPECT_EQ(good, kChecked);
    ASSERT_TRUE(child.wait_step());
    finish(child);
    consumer_destroy(c);
}

// Bytes of a valid one-field section file, made by a real producer.
std::string valid_section_bytes(const tlm_root &root, const char *section)
{
    float value = 3.5f;
    shm_producer *p = producer_create(section, 4, 1000);
    EXPECT_EQ(producer_register_struct(p, &value, nullptr, &kValue), 0);
    EXPECT_EQ(producer_complete(p), 0);
    timespec ts{7, 0};
    EXPECT_EQ(producer_put_sample(p, &ts), 0);
    std::string bytes = read_file(root.file(section));
    producer_destroy(p);
    return bytes;
}

template <typename T>
void poke(std::string &bytes, size_t offset, T value)
{
    memcpy(bytes.data() + offset, &value, sizeof value);
}

TEST(ShmTelemetry, HostileSectionFilesGiveACleanError)
{
    // Offsets in the file: version 8, section name 16, field_count 96,
    // sample_size 108, slot_size 112, sample_count 116, file_size 128;
    // the first field at 256: its name, then type 320, size 324, count 328, offset 332.
    struct row {
        const char *what;
        std::function<void(std::string &)> damage;
        int expected;
    };
    const row rows[] = {
        {"intact", [](std::string &) {}, 0},
        {"empty file", [](std::string &b) { b.clear(); }, -EBADMSG},
        {"truncated header", [](std::string &b) { b.resize(100); }, -EBADMSG},
        {"truncated ring", [](std::string &b) { b.resize(b.size() - 8); }, -EBADMSG},
        {"longer than its geometry", [](std::string &b) { b.append(64, '\0'); }, -EBADMSG},
        {"wrong magic", [](std::string &b) { b[0] = 'X'; }, -EBADMSG},
        {"wrong version", [](std::string &b) { poke<uint32_t>(b, 8, 2); }, -EBADMSG},
        {"other section name", [](std::string &b) { b[16] = 'z'; }, -EBADMSG},
        {"unterminated section name", [](std::string &b) { memset(b.data() + 16, 'a', 64); }, -EBADMSG},
        {"no field", [](std::string &b) { poke<uint32_t>(b, 96, 0); }, -EBADMSG},
        {"absurd field count", [](std::string &b) { poke<uint32_t>(b, 96, 0xffffffffu); }, -EBADMSG},
        {"absurd sample count", [](std::string &b) { poke<uint32_t>(b, 116, 0x7fffffffu); }, -EBADMSG},
        {"sample count beyond the file", [](std::string &b) { poke<uint32_t>(b, 116, 5); }, -EBADMSG},
        {"slot size inconsistent", [](std::string &b) { poke<uint32_t>(b, 112, 8); }, -EBADMSG},
        {"sample size beyond the slot", [](std::string &b) { poke<uint32_t>(b, 108, 4096); }, -EBADMSG},
        {"file size lies", [](std::string &b) { poke<uint64_t>(b, 128, 1u << 20); }, -EBADMSG},
        {"field beyond the sample", [](std::string &b) { poke<uint32_t>(b, 332, 4); }, -EBADMSG},
        {"field count overflows", [](std::string &b) { poke<uint32_t>(b, 328, 0x40000001u); }, -EBADMSG},
        {"unknown type", [](std::string &b) { poke<uint32_t>(b, 320, 99); }, -EBADMSG},
        {"type and size disagree", [](std::string &b) { poke<uint32_t>(b, 324, 8); }, -EBADMSG},
        {"unterminated field name", [](std::string &b) { memset(b.data() + 256, 'v', 64); }, -EBADMSG},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        tlm_root root;
        std::string bytes = valid_section_bytes(root, "hostile");
        r.damage(bytes);
        write_file(root.file("hostile"), bytes);

        float value = 0;
        shm_consumer *c = struct_consumer(&value, "hostile", &kValue);
        timespec ts{};
        EXPECT_EQ(consumer_get_sample_at(c, nullptr, 0, &ts), r.expected);
        if (r.expected == 0) {
            EXPECT_EQ(value, 3.5f);
            EXPECT_EQ(ts.tv_sec, 7);
        }
        consumer_destroy(c);
    }
}

TEST(ShmTelemetry, ProducersRefuseWhatNoConsumerCouldRead)
{
    tlm_root root;
    float v = 0;
    for (const char *bad : {"", "a.b", "has space", "../up", "a/b",
                            "x234567890123456789012345678901234567890123456789012345678901234"})
        EXPECT_EQ(producer_create(bad, 4, 1000), nullptr) << bad;
    EXPECT_EQ(producer_create("ok", 0, 1000), nullptr);

    shm_producer *p = producer_create("ok", 4, 1000);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(producer_complete(p), -EINVAL); // nothing registered
    timespec ts{1, 0};
    EXPECT_EQ(producer_put_sample(p, &ts), -EINVAL); // not completed
    const tlm_field_desc wrong_size[] = {{0, "w", TLM_TYPE_FLOAT, 0, 8, 1, {}}};
    const tlm_struct_desc bad_desc{0, 1, wrong_size};
    EXPECT_EQ(producer_register_struct(p, &v, nullptr, &bad_desc), -EINVAL);
    EXPECT_EQ(producer_register_struct(p, &v, nullptr, &kValue), 0);
    EXPECT_EQ(producer_register_struct(p, &v, nullptr, &kValue), -EINVAL); // "value" is taken
    EXPECT_EQ(producer_register_struct(p, &v, "again", &kValue), 0);      // "again.value" is not
    EXPECT_EQ(producer_complete(p), 0);
    EXPECT_EQ(producer_register_struct(p, &v, "late", &kValue), -EINVAL);
    EXPECT_EQ(producer_put_sample(p, nullptr), -EINVAL);

    tlm_section_view view;
    ASSERT_EQ(tlm_view_open("ok", &view), 0);
    ASSERT_EQ(view.field_count, 2u);
    tlm_field_info info;
    ASSERT_EQ(tlm_view_field(&view, 1, &info), 0);
    EXPECT_STREQ(info.name, "again.value");
    EXPECT_EQ(info.offset, 8u);
    tlm_view_close(&view);
    // A producer that was replaced leaves its successor's file in place.
    shm_producer *successor = producer_create("ok", 4, 1000);
    ASSERT_EQ(producer_register_struct(successor, &v, nullptr, &kValue), 0);
    ASSERT_EQ(producer_complete(successor), 0);
    producer_destroy(p);
    EXPECT_EQ(access(root.file("ok").c_str(), F_OK), 0);
    // A link in a section's place is replaced, not followed: the section it
    // leads to is not marked closed.
    ASSERT_EQ(symlink(root.file("ok").c_str(), root.file("linked").c_str()), 0);
    shm_producer *over_link = producer_create("linked", 4, 1000);
    ASSERT_EQ(producer_register_struct(over_link, &v, nullptr, &kValue), 0);
    ASSERT_EQ(producer_complete(over_link), 0);
    ASSERT_EQ(tlm_view_open("ok", &view), 0);
    EXPECT_FALSE(tlm_view_closed(&view));
    tlm_view_close(&view);
    producer_destroy(over_link);
    producer_destroy(successor);
    EXPECT_EQ(access(root.file("ok").c_str(), F_OK), -1);
}

// A telemetry file system that somebody filled (another user, a leak): a
// producer that cannot have its file's storage fails its creation with a
// message; one that got it publishes through several turns of its ring; a
// consumer refuses a section whose ring has no storage behind it. Nobody
// dies of SIGBUS. Runs in a child, in a mount namespace of its own, on a
// small file system (root only).
TEST(ShmTelemetry, AFullFileSystemFailsACreationAndKillsNobody)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "mounting a small file system needs root (CI runs as root)";
    tlm_root root;
    const std::string dir = root.dir(), filler = dir + "/filler";
    auto fill = [&filler] {
        int fd = open(filler.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        static const char page[4096] = {};
        while (fd >= 0 && write(fd, page, sizeof page) > 0) {
        }
        bool full = errno == ENOSPC;
        close(fd);
        return full;
    };
    // A section of 64 samples of 2 KiB, whose ring spans 33 pages.
    static float big[512];
    const tlm_field_desc big_field[] = {{0, "values", TLM_TYPE_FLOAT, 0, 4, 512, {}}};
    const tlm_struct_desc big_desc{0, 1, big_field};
    auto make = [&](const char *section) {
        shm_producer *p = producer_create(section, 64, 1000);
        if (p && producer_register_struct(p, big, nullptr, &big_desc) == 0 && producer_complete(p) == 0)
            return p;
        producer_destroy(p);
        return static_cast<shm_producer *>(nullptr);
    };
    child_process child([&](const child_process::link &) {
        log_capture cap;
        // A section file made elsewhere, of which only the last page was never stored.
        setenv(kTlmDirEnv, root.at("/elsewhere").c_str(), 1);
        shm_producer *model = make("sparse");
        timespec ts{5, 0};
        for (int i = 0; i < 64 && model; i++)
            producer_put_sample(model, &ts);
        std::string sparse = read_file(root.at("/elsewhere/sparse.tlm"));
        producer_destroy(model);
        setenv(kTlmDirEnv, dir.c_str(), 1);
        if (sparse.size() < 70000 || mkdir(dir.c_str(), 0755) != 0 || unshare(CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tlm", dir.c_str(), "tmpfs", 0, "size=512k,mode=0755") != 0)
            return 90;
        int fd = open((dir + "/sparse.tlm").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        const size_t stored = (sparse.size() - 1) / 4096 * 4096;
        if (fd < 0 || pwrite(fd, sparse.data(), stored, 0) != ssize_t(stored) ||
            ftruncate(fd, off_t(sparse.size())) != 0)
            return 91;
        close(fd);

        if (!fill() || make("full") != nullptr)
            return 92;
        std::vector<std::string> texts = cap.texts("shm_telemetry");
        if (texts.size() != 1 || texts[0].find("cannot publish section \"full\": no room for its ") != 0 ||
            texts[0].find(" bytes in " + dir + ": No space left on device") == std::string::npos)
            return 93;

        unlink(filler.c_str());
        shm_producer *flying = make("flying");
        if (!flying || !fill())
            return 94;
        for (int i = 0; i < 3 * 64; i++) // the Nth push reaches a page never written before
            if (producer_put_sample(flying, &ts) != 0)
                return 95;
        float value[512];
        shm_consumer *c = struct_consumer(value, "sparse", &big_desc);
        if (read_latest(c) != -EBADMSG)
            return 96;
        consumer_destroy(c);
        c = struct_consumer(value, "flying", &big_desc);
        if (read_latest(c) != 0)
            return 97;
        consumer_destroy(c);
        producer_destroy(flying);
        return 0;
    });
    EXPECT_EQ(child.join(), 0) << "128 + 7 is SIGBUS";
}

// The consumer's fail points are exercised by the section reader's tests.
TEST(ShmTelemetry, ProducerFailPointsStandForFailuresTheSystemRarelyGives)
{
    tlm_root root;
    float v = 0;
    failpoint_arm("shm_producer_create", -ENOMEM, 1);
    EXPECT_EQ(producer_create("fp", 4, 1000), nullptr);
    shm_producer *p = producer_create("fp", 4, 1000);
    failpoint_arm("shm_producer_register_struct", -EIO, 1);
    EXPECT_EQ(producer_register_struct(p, &v, nullptr, &kValue), -EIO);
    EXPECT_EQ(producer_register_struct(p, &v, nullptr, &kValue), 0);
    failpoint_arm("shm_producer_complete", -ENOSPC, 1);
    EXPECT_EQ(producer_complete(p), -ENOSPC);
    EXPECT_EQ(producer_complete(p), 0);
    producer_destroy(p);
    producer_destroy(nullptr);
    consumer_destroy(nullptr);
}

TEST(ShmTelemetry, ArrayEntriesNameTheirSectionBeforeTheFirstDot)
{
    float dest[2];
    const tlm_array_entry bad[] = {
        {dest, "nodot", TLM_TYPE_FLOAT, 0, 4, 1, 2, nullptr},
        {dest, ".field", TLM_TYPE_FLOAT, 0, 4, 1, 2, nullptr},
        {dest, "section.", TLM_TYPE_FLOAT, 0, 4, 1, 2, nullptr},
        {dest, "sec tion.f", TLM_TYPE_FLOAT, 0, 4, 1, 2, nullptr},
        {dest, "section.f", TLM_TYPE_FLOAT, 0, 8, 1, 2, nullptr},
        {dest, "section.f", TLM_TYPE_FLOAT, 0, 4, 1, 0, nullptr},
        {nullptr, "section.f", TLM_TYPE_FLOAT, 0, 4, 1, 2, nullptr},
    };
    for (const tlm_array_entry &e : bad) {
        shm_consumer *c = consumer_create();
        EXPECT_EQ(consumer_register_array(c, &e, 1), -EINVAL) << e.name;
        EXPECT_EQ(consumer_complete(c), -EINVAL); // nothing registered
        consumer_destroy(c);
    }
}

} // namespace
