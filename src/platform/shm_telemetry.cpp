// SPDX-License-Identifier: Apache-2.0
#include "platform/shm_telemetry.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "common/owned.h"
#include "platform/failpoint.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/trust.h"

namespace {

constexpr log_tag kTag{"shm_telemetry"};

// ---- the section file --------------------------------------------------------
//
// [file_header, 256 bytes][file_field x field_count][pad to 64][slot x sample_count]
// slot: [seq u64][seconds i64][nanoseconds i64][sample, sample_size bytes][pad to 8]
// Native byte order: sections never leave the machine that wrote them.

constexpr char kMagic[8] = {'O', 'R', 'L', 'T', 'L', 'M', '\0', '\0'};
constexpr uint32_t kVersion = 1;
constexpr uint32_t kSlotHeaderSize = 24;

struct file_header {
    char magic[8];
    uint32_t version;
    uint32_t header_size; // sizeof(file_header)
    char section[kTlmNameMax + 1];
    uint64_t generation; // differs between two producers of the same name
    uint32_t producer_pid;
    uint32_t period_us;
    uint32_t field_count;
    uint32_t field_size; // sizeof(file_field)
    uint32_t fields_offset;
    uint32_t sample_size;
    uint32_t slot_size;
    uint32_t sample_count;
    uint32_t slots_offset;
    uint32_t reserved0;
    uint64_t file_size;
    uint8_t reserved1[56];
    // Written by the producer while consumers read: accessed atomically only.
    uint64_t written; // samples published since the section was made
    uint32_t closed;  // 1 once the producer has gone or was replaced
    uint8_t reserved2[52];
};
static_assert(offsetof(file_header, written) % 64 == 0);
static_assert(sizeof(file_header) == 256);

struct file_field {
    char name[kTlmNameMax + 1];
    uint32_t type;
    uint32_t size;
    uint32_t count;
    uint32_t offset;
};
static_assert(sizeof(file_field) == 80);

struct slot_header {
    uint64_t seq; // 2n+1 while sample n is being written, 2n+2 once it is whole
    int64_t sec;
    int64_t nsec;
};
static_assert(sizeof(slot_header) == kSlotHeaderSize);
static_assert(std::atomic_ref<uint64_t>::is_always_lock_free && std::atomic_ref<uint32_t>::is_always_lock_free,
              "shared words must be lock-free to be shared between processes");

constexpr uint64_t round_up(uint64_t v, uint64_t to)
{
    return (v + to - 1) / to * to;
}

constexpr uint32_t slot_size_for(uint32_t sample_size)
{
    return uint32_t(round_up(uint64_t(kSlotHeaderSize) + sample_size, 8));
}

constexpr uint64_t slots_offset_for(uint32_t field_count)
{
    return round_up(sizeof(file_header) + uint64_t(field_count) * sizeof(file_field), 64);
}

uint64_t load_acquire(const uint64_t *p)
{
    return std::atomic_ref<uint64_t>(*const_cast<uint64_t *>(p)).load(std::memory_order_acquire);
}

struct type_entry {
    const char *name;
    size_t size;
};

constexpr std::array<type_entry, 14> kTypes{{
    {"?", 0},
    {"bool", 1},
    {"u8", 1},
    {"u16", 2},
    {"i16", 2},
    {"i32", 4},
    {"u32", 4},
    {"i64", 8},
    {"u64", 8},
    {"f32", 4},
    {"f64", 8},
    {"char", 1},
    {"i8", 1},
    {"timespec", 16},
}};

constexpr type_entry type_entry_of(uint32_t type)
{
    return type < kTypes.size() ? kTypes[type] : kTypes[0];
}

// Field names: 1 to 63 printable characters, no blank.
bool field_name_valid(const char *name)
{
    if (!name || !*name)
        return false;
    size_t n = 0;
    for (; name[n]; n++) {
        unsigned char c = static_cast<unsigned char>(name[n]);
        if (c <= ' ' || c >= 0x7f || n >= kTlmNameMax)
            return false;
    }
    return true;
}

// A text of at most max characters, terminated inside room bytes.
bool bounded_text(const char *text, size_t room)
{
    return memchr(text, '\0', room) != nullptr;
}

timespec timespec_from(const slot_header &h)
{
    timespec t{};
    t.tv_sec = h.sec;
    t.tv_nsec = h.nsec;
    return t;
}

// Hands sample n of a mapped section to copy, and its time to *ts. -EAGAIN
// when the slot does not hold sample n whole (not written yet, overwritten,
// or being written).
template <typename CopyFn>
int read_slot(const tlm_section_view *view, uint64_t n, timespec *ts, CopyFn copy)
{
    const uint8_t *slot = view->base + view->slots_offset + (n % view->sample_count) * uint64_t(view->slot_size);
    const auto *head = reinterpret_cast<const slot_header *>(slot);
    uint64_t expected = 2 * n + 2;
    uint64_t before = load_acquire(&head->seq);
    if (before != expected)
        return -EAGAIN;
    slot_header copy_of_head;
    memcpy(&copy_of_head, head, sizeof copy_of_head);
    copy(slot + kSlotHeaderSize);
    std::atomic_thread_fence(std::memory_order_acquire);
    uint64_t after = std::atomic_ref<uint64_t>(*const_cast<uint64_t *>(&head->seq)).load(std::memory_order_relaxed);
    if (after != expected)
        return -EAGAIN;
    if (ts)
        *ts = timespec_from(copy_of_head);
    return 0;
}

} // namespace

size_t tlm_type_size(uint32_t type)
{
    return type_entry_of(type).size;
}

const char *tlm_type_name(uint32_t type)
{
    return type_entry_of(type).name;
}

bool tlm_section_name_valid(const char *name)
{
    if (!name || !*name)
        return false;
    size_t n = 0;
    for (; name[n]; n++) {
        char c = name[n];
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
        if (!ok || n >= kTlmNameMax)
            return false;
    }
    return true;
}

int tlm_dir(char *out, size_t size)
{
    if (!out || size == 0)
        return -EINVAL;
    const char *dir = secure_getenv(kTlmDirEnv);
    if (!dir || !*dir)
        return platform_path(kTlmDefaultDir, out, size);
    int n = snprintf(out, size, "%s", dir);
    if (n < 0 || size_t(n) >= size)
        return -ENAMETOOLONG;
    return 0;
}

int tlm_section_path(const char *section, char *out, size_t size)
{
    if (!tlm_section_name_valid(section) || !out || size == 0)
        return -EINVAL;
    char dir[256];
    int r = tlm_dir(dir, sizeof dir);
    if (r < 0)
        return r;
    int n = snprintf(out, size, "%s/%s%s", dir, section, kTlmFileSuffix);
    if (n < 0 || size_t(n) >= size)
        return -ENAMETOOLONG;
    return 0;
}

// ---- inspection ----------------------------------------------------------------

void tlm_view_close(tlm_section_view *view)
{
    if (!view)
        return;
    if (view->base)
        munmap(const_cast<uint8_t *>(view->base), view->map_size);
    *view = tlm_section_view{};
}

namespace {

// Splits path into its directory ("." when it names none) and its last
// component. 0 or -ENAMETOOLONG / -EINVAL.
int split_path(const char *path, char *dir, size_t size, const char **file)
{
    const char *slash = strrchr(path, '/');
    *file = slash ? slash + 1 : path;
    if (!**file)
        return -EINVAL;
    int n = !slash ? snprintf(dir, size, ".")
            : slash == path ? snprintf(dir, size, "/")
                            : snprintf(dir, size, "%.*s", static_cast<int>(slash - path), path);
    return n < 0 || size_t(n) >= size ? -ENAMETOOLONG : 0;
}

// Opens the file (named path in a refusal) inside the directory dir_fd,
// which the caller reached through trust_open_dir, and checks it: what is
// checked is what is mapped, whatever happens to the names meanwhile. Then
// maps and validates it into view. 0 or a negative errno; -EPERM with the
// reason in view->refusal.
int view_open_at(int dir_fd, const char *file, const char *path, const trust_policy *policy,
                 tlm_section_view *view)
{
    tlm_view_close(view);
    // Non-blocking: a FIFO planted under a section's name must not hang the reader.
    int fd = openat(dir_fd, file, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW);
    if (fd < 0 && errno == ELOOP) {
        snprintf(view->refusal, sizeof view->refusal, "%s is a symbolic link", path);
        return -EPERM;
    }
    if (fd < 0)
        return -errno;
    scope_guard close_fd{[fd] { close(fd); }};
    int r = trust_check_fd(policy, fd, false, path, view->refusal, sizeof view->refusal);
    if (r < 0)
        return r;
    struct stat st;
    if (fstat(fd, &st) < 0)
        return -errno;
    if (!S_ISREG(st.st_mode) || st.st_size < off_t(sizeof(file_header)) || uint64_t(st.st_size) > kTlmMaxFileSize)
        return -EBADMSG;
    // Reading a page of the mapping that has no storage behind it, on a full
    // file system, kills the reader (SIGBUS): only a file whose every byte
    // is stored is mapped. Producers reserve the whole file before it
    // appears under its name.
    if (uint64_t(st.st_blocks) * 512 < uint64_t(st.st_size))
        return -EBADMSG;
    size_t size = size_t(st.st_size);
    void *map = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
    if (map == MAP_FAILED)
        return -errno;
    tlm_section_view v;
    v.base = static_cast<const uint8_t *>(map);
    v.map_size = size;
    v.dev = st.st_dev;
    v.ino = st.st_ino;

    // Everything below is judged on a private copy: the file may change under us.
    file_header h;
    memcpy(&h, v.base, sizeof h);
    bool ok = memcmp(h.magic, kMagic, sizeof kMagic) == 0 && h.version == kVersion &&
              h.header_size == sizeof(file_header) && h.field_size == sizeof(file_field) &&
              h.fields_offset == sizeof(file_header) && bounded_text(h.section, sizeof h.section) &&
              tlm_section_name_valid(h.section) && h.field_count >= 1 && h.field_count <= kTlmMaxFields &&
              h.sample_size >= 1 && h.sample_size <= kTlmMaxSampleSize && h.sample_count >= 1 &&
              h.sample_count <= kTlmMaxSampleCount && h.slot_size == slot_size_for(h.sample_size) &&
              h.slots_offset == slots_offset_for(h.field_count) &&
              h.file_size == h.slots_offset + uint64_t(h.slot_size) * h.sample_count && h.file_size == size;
    if (!ok) {
        munmap(map, size);
        return -EBADMSG;
    }
    memcpy(v.name, h.section, sizeof v.name);
    v.generation = h.generation;
    v.field_count = h.field_count;
    v.sample_size = h.sample_size;
    v.sample_count = h.sample_count;
    v.period_us = h.period_us;
    v.producer_pid = h.producer_pid;
    v.slot_size = h.slot_size;
    v.slots_offset = h.slots_offset;
    for (uint32_t i = 0; i < v.field_count; i++) {
        tlm_field_info info;
        if (tlm_view_field(&v, i, &info) < 0) {
            munmap(map, size);
            return -EBADMSG;
        }
    }
    *view = v;
    return 0;
}

// Opens the directory of the section file path, every directory on the way
// checked and no link followed, and points *file at the file's name in path.
// The directory's O_PATH descriptor, or a negative errno (-EPERM with the
// reason in view->refusal).
int open_dir_of(const char *path, const trust_policy *policy, tlm_section_view *view, const char **file)
{
    char dir[512];
    int r = split_path(path, dir, sizeof dir, file);
    if (r < 0)
        return r;
    return trust_open_dir(policy, dir, false, view->refusal, sizeof view->refusal);
}

} // namespace

int tlm_view_open_path(const char *path, tlm_section_view *view)
{
    trust_policy policy;
    trust_policy_load(&policy);
    return tlm_view_open_trusted(path, &policy, view);
}

int tlm_view_open_trusted(const char *path, const trust_policy *policy, tlm_section_view *view)
{
    if (!path || !policy || !view)
        return -EINVAL;
    tlm_view_close(view);
    const char *file = nullptr;
    int dir_fd = open_dir_of(path, policy, view, &file);
    if (dir_fd < 0)
        return dir_fd;
    scope_guard close_dir{[dir_fd] { close(dir_fd); }};
    return view_open_at(dir_fd, file, path, policy, view);
}

int tlm_view_open(const char *section, tlm_section_view *view)
{
    char path[512];
    int r = tlm_section_path(section, path, sizeof path);
    if (r < 0)
        return r;
    r = tlm_view_open_path(path, view);
    if (r == 0 && strcmp(view->name, section) != 0) {
        tlm_view_close(view);
        return -EBADMSG;
    }
    return r;
}

int tlm_view_field(const tlm_section_view *view, uint32_t i, tlm_field_info *out)
{
    if (!view || !view->base || !out || i >= view->field_count)
        return -EINVAL;
    file_field f;
    memcpy(&f, view->base + sizeof(file_header) + uint64_t(i) * sizeof(file_field), sizeof f);
    if (!bounded_text(f.name, sizeof f.name) || !field_name_valid(f.name) || tlm_type_size(f.type) == 0 ||
        f.size != tlm_type_size(f.type) || f.count == 0 ||
        uint64_t(f.offset) + uint64_t(f.size) * f.count > view->sample_size)
        return -EBADMSG;
    memcpy(out->name, f.name, sizeof out->name);
    out->type = f.type;
    out->size = f.size;
    out->count = f.count;
    out->offset = f.offset;
    return 0;
}

int tlm_view_find(const tlm_section_view *view, const char *name, tlm_field_info *out)
{
    if (!view || !name || !out)
        return -EINVAL;
    for (uint32_t i = 0; i < view->field_count; i++) {
        tlm_field_info info;
        if (tlm_view_field(view, i, &info) < 0)
            return -EBADMSG;
        if (strcmp(info.name, name) == 0) {
            *out = info;
            return int(i);
        }
    }
    return -ENOENT;
}

uint64_t tlm_view_written(const tlm_section_view *view)
{
    if (!view || !view->base)
        return 0;
    return load_acquire(&reinterpret_cast<const file_header *>(view->base)->written);
}

bool tlm_view_closed(const tlm_section_view *view)
{
    if (!view || !view->base)
        return true;
    const uint32_t *closed = &reinterpret_cast<const file_header *>(view->base)->closed;
    return std::atomic_ref<uint32_t>(*const_cast<uint32_t *>(closed)).load(std::memory_order_acquire) != 0;
}

int tlm_view_read(const tlm_section_view *view, uint64_t index, void *out, size_t size, timespec *timestamp)
{
    if (!view || !view->base || !out || size < view->sample_size)
        return -EINVAL;
    if (index >= tlm_view_written(view))
        return -EAGAIN;
    return read_slot(view, index, timestamp,
                     [&](const uint8_t *sample) { memcpy(out, sample, view->sample_size); });
}

// ---- producers -------------------------------------------------------------------

namespace {

struct producer_record {
    const uint8_t *address;
    uint32_t size;   // bytes copied per sample
    uint32_t offset; // in the sample
};

// A growable array of plain records for registration time (never on a hot path).
template <typename T>
bool append(T **items, size_t *count, const T &item)
{
    T *grown = static_cast<T *>(realloc(*items, (*count + 1) * sizeof(T)));
    if (!grown)
        return false;
    grown[*count] = item;
    *items = grown;
    ++*count;
    return true;
}

// Sets closed in the header of the section file open on fd, when it is one.
// Written through the descriptor, not a mapping: a file that another
// producer left without storage behind it must not kill this one.
void mark_closed(int fd)
{
    struct stat st;
    char magic[sizeof kMagic];
    if (fstat(fd, &st) < 0 || !S_ISREG(st.st_mode) || st.st_size < off_t(sizeof(file_header)) ||
        pread(fd, magic, sizeof magic, 0) != ssize_t(sizeof magic) || memcmp(magic, kMagic, sizeof kMagic) != 0)
        return;
    const uint32_t closed = 1;
    ssize_t ignored = pwrite(fd, &closed, sizeof closed, offsetof(file_header, closed));
    (void)ignored;
}

// Creates a file of a name nobody can foresee in dir_fd: "<file>.<random>.tmp".
int create_temporary(int dir_fd, const char *file, char *tmp, size_t size)
{
    for (int attempt = 0; attempt < 8; attempt++) {
        uint64_t nonce = 0;
        if (getrandom(&nonce, sizeof nonce, GRND_NONBLOCK) != ssize_t(sizeof nonce)) {
            timespec now{};
            clock_gettime(CLOCK_MONOTONIC, &now);
            nonce ^= (uint64_t(now.tv_nsec) << 20) ^ uint64_t(now.tv_sec) ^ (uint64_t(getpid()) << 40) ^
                      uint64_t(uintptr_t(&nonce));
        }
        snprintf(tmp, size, "%s.%016llx.tmp", file, static_cast<unsigned long long>(nonce));
        int fd = openat(dir_fd, tmp, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
        if (fd >= 0 || errno != EEXIST)
            return fd < 0 ? -errno : fd;
    }
    return -EEXIST;
}

uint64_t new_generation()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return (uint64_t(now.tv_sec) * 1000000000u + uint64_t(now.tv_nsec)) ^ (uint64_t(getpid()) << 44);
}

} // namespace

struct shm_producer {
    char section[kTlmNameMax + 1];
    uint32_t sample_count;
    uint32_t period_us;
    producer_record *records;
    size_t record_count;
    file_field *fields;
    size_t field_count;
    uint32_t sample_size;
    bool completed;
    uint8_t *base; // the mapping, once completed
    size_t map_size;
    file_header *header;
    uint32_t slot_size;
    uint32_t slots_offset;
    uint64_t written;
    dev_t dev;
    ino_t ino;
};

shm_producer *producer_create(const char *section, uint32_t sample_count, uint32_t period_us)
{
    if (!tlm_section_name_valid(section) || sample_count == 0 || sample_count > kTlmMaxSampleCount) {
        log_msg(kTag, LOG_ERR, "cannot create section \"%s\": invalid name or sample count %u",
                section ? section : "(null)", sample_count);
        return nullptr;
    }
    if (failpoint_check("shm_producer_create") < 0)
        return nullptr;
    shm_producer *p = zeroed_new<shm_producer>();
    if (!p)
        return nullptr;
    snprintf(p->section, sizeof p->section, "%s", section);
    p->sample_count = sample_count;
    p->period_us = period_us;
    return p;
}

int producer_register_struct(shm_producer *producer, const void *address, const char *name,
                             const tlm_struct_desc *layout)
{
    if (!producer || !address || !layout || !layout->fields || layout->field_count == 0 || layout->flags != 0 ||
        producer->completed)
        return -EINVAL;
    int err = failpoint_check("shm_producer_register_struct");
    if (err < 0)
        return err;
    if (name && !field_name_valid(name))
        return -EINVAL;
    if (producer->field_count + layout->field_count > kTlmMaxFields)
        return -EINVAL;

    uint64_t extent = 0;
    for (uint64_t i = 0; i < layout->field_count; i++) {
        const tlm_field_desc &f = layout->fields[i];
        uint64_t type_size = tlm_type_size(f.type);
        if (!field_name_valid(f.name) || type_size == 0 || f.size != type_size || f.count == 0 ||
            f.count > kTlmMaxSampleSize || f.offset > kTlmMaxSampleSize) {
            log_msg(kTag, LOG_ERR, "section \"%s\": field %llu of the layout is invalid", producer->section,
                    static_cast<unsigned long long>(i));
            return -EINVAL;
        }
        uint64_t end = f.offset + f.size * f.count;
        if (end > extent)
            extent = end;
    }
    uint64_t offset = round_up(producer->sample_size, 8);
    if (offset + extent > kTlmMaxSampleSize)
        return -EINVAL;

    size_t first_new = producer->field_count;
    for (uint64_t i = 0; i < layout->field_count; i++) {
        const tlm_field_desc &f = layout->fields[i];
        file_field entry{};
        int n = name ? snprintf(entry.name, sizeof entry.name, "%s.%s", name, f.name)
                     : snprintf(entry.name, sizeof entry.name, "%s", f.name);
        bool duplicate = false;
        for (size_t j = 0; j < producer->field_count; j++)
            duplicate = duplicate || strcmp(producer->fields[j].name, entry.name) == 0;
        if (n < 0 || size_t(n) >= sizeof entry.name || duplicate) {
            log_msg(kTag, LOG_ERR, "section \"%s\": field name \"%s%s%s\" is too long or already taken",
                    producer->section, name ? name : "", name ? "." : "", f.name);
            producer->field_count = first_new;
            return -EINVAL;
        }
        entry.type = f.type;
        entry.size = uint32_t(f.size);
        entry.count = uint32_t(f.count);
        entry.offset = uint32_t(offset + f.offset);
        if (!append(&producer->fields, &producer->field_count, entry)) {
            producer->field_count = first_new;
            return -ENOMEM;
        }
    }
    producer_record record{static_cast<const uint8_t *>(address), uint32_t(extent), uint32_t(offset)};
    if (!append(&producer->records, &producer->record_count, record)) {
        producer->field_count = first_new;
        return -ENOMEM;
    }
    producer->sample_size = uint32_t(offset + extent);
    return 0;
}

int producer_complete(shm_producer *producer)
{
    if (!producer || producer->completed || producer->record_count == 0)
        return -EINVAL;
    int err = failpoint_check("shm_producer_complete");
    if (err < 0)
        return err;

    char dir[256];
    char path[512];
    if ((err = tlm_dir(dir, sizeof dir)) < 0 || (err = tlm_section_path(producer->section, path, sizeof path)) < 0)
        return err;
    // Published only where consumers will read: a directory that a trusted
    // user owns and others cannot write to (unless sticky), reached through
    // such directories only. The directory is made when missing, not its parents.
    trust_policy policy;
    trust_policy_load(&policy);
    char reason[kTrustReasonMax];
    int dir_fd = trust_open_dir(&policy, dir, true, reason, sizeof reason);
    if (dir_fd < 0) {
        err = dir_fd;
        if (err == -EPERM)
            log_msg(kTag, LOG_ERR, "cannot publish section \"%s\": %s", producer->section, reason);
        else
            log_msg(kTag, LOG_ERR, "cannot open telemetry directory %s: %s", dir, strerror(-err));
        return err;
    }
    scope_guard close_dir{[dir_fd] { close(dir_fd); }};

    uint32_t slot_size = slot_size_for(producer->sample_size);
    uint64_t slots_offset = slots_offset_for(uint32_t(producer->field_count));
    uint64_t size = slots_offset + uint64_t(slot_size) * producer->sample_count;
    if (size > kTlmMaxFileSize)
        return -EFBIG;

    char file[kTlmNameMax + 8];
    char tmp[kTlmNameMax + 32];
    snprintf(file, sizeof file, "%s%s", producer->section, kTlmFileSuffix);
    int fd = create_temporary(dir_fd, file, tmp, sizeof tmp);
    if (fd < 0) {
        log_msg(kTag, LOG_ERR, "cannot create %s/%s: %s", dir, tmp, strerror(-fd));
        return fd;
    }
    scope_guard close_fd{[fd] { close(fd); }};
    scope_guard remove_tmp{[dir_fd, &tmp] { unlinkat(dir_fd, tmp, 0); }};
    // Every page is given its storage now: a store into a page that a full
    // file system cannot back would kill the process (SIGBUS) in flight.
    if ((err = posix_fallocate(fd, 0, off_t(size))) != 0) {
        log_msg(kTag, LOG_ERR, "cannot publish section \"%s\": no room for its %llu bytes in %s: %s",
                producer->section, static_cast<unsigned long long>(size), dir, strerror(err));
        return -err;
    }
    struct stat st;
    if (fstat(fd, &st) < 0)
        return -errno;
    void *map = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (map == MAP_FAILED)
        return -errno;

    auto *h = static_cast<file_header *>(map);
    memcpy(h->magic, kMagic, sizeof kMagic);
    h->version = kVersion;
    h->header_size = sizeof(file_header);
    memcpy(h->section, producer->section, sizeof h->section);
    h->generation = new_generation();
    h->producer_pid = uint32_t(getpid());
    h->period_us = producer->period_us;
    h->field_count = uint32_t(producer->field_count);
    h->field_size = sizeof(file_field);
    h->fields_offset = sizeof(file_header);
    h->sample_size = producer->sample_size;
    h->slot_size = slot_size;
    h->sample_count = producer->sample_count;
    h->slots_offset = uint32_t(slots_offset);
    h->file_size = size;
    memcpy(static_cast<uint8_t *>(map) + sizeof(file_header), producer->fields,
           producer->field_count * sizeof(file_field));

    // The previous file of this name, if any, is closed once the new one is in
    // place, so that its consumers find the new file when they look again.
    int old_fd = openat(dir_fd, file, O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (renameat(dir_fd, tmp, dir_fd, file) < 0) {
        err = -errno;
        if (old_fd >= 0)
            close(old_fd);
        munmap(map, size);
        log_msg(kTag, LOG_ERR, "cannot publish %s: %s", path, strerror(-err));
        return err;
    }
    remove_tmp.dismiss();
    if (old_fd >= 0) {
        mark_closed(old_fd);
        close(old_fd);
    }

    producer->base = static_cast<uint8_t *>(map);
    producer->map_size = size;
    producer->header = h;
    producer->slot_size = slot_size;
    producer->slots_offset = uint32_t(slots_offset);
    producer->dev = st.st_dev;
    producer->ino = st.st_ino;
    producer->completed = true;
    return 0;
}

int producer_put_sample(shm_producer *producer, const timespec *timestamp)
{
    if (!producer || !timestamp || !producer->completed)
        return -EINVAL;
    uint64_t n = producer->written;
    uint8_t *slot = producer->base + producer->slots_offset + (n % producer->sample_count) * uint64_t(producer->slot_size);
    auto *head = reinterpret_cast<slot_header *>(slot);
    std::atomic_ref<uint64_t> seq(head->seq);
    seq.store(2 * n + 1, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
    head->sec = timestamp->tv_sec;
    head->nsec = timestamp->tv_nsec;
    uint8_t *sample = slot + kSlotHeaderSize;
    for (size_t i = 0; i < producer->record_count; i++) {
        const producer_record &r = producer->records[i];
        memcpy(sample + r.offset, r.address, r.size);
    }
    seq.store(2 * n + 2, std::memory_order_release);
    producer->written = n + 1;
    std::atomic_ref<uint64_t>(producer->header->written).store(n + 1, std::memory_order_release);
    return 0;
}

void producer_destroy(shm_producer *producer)
{
    if (!producer)
        return;
    if (producer->base) {
        std::atomic_ref<uint32_t>(producer->header->closed).store(1, std::memory_order_release);
        // Remove the file only while it is still ours: a newer producer may have replaced it.
        char path[512];
        struct stat st;
        if (tlm_section_path(producer->section, path, sizeof path) == 0 && stat(path, &st) == 0 &&
            st.st_dev == producer->dev && st.st_ino == producer->ino)
            unlink(path);
        munmap(producer->base, producer->map_size);
    }
    free(producer->records);
    free(producer->fields);
    free(producer);
}

// ---- consumers ---------------------------------------------------------------------

namespace {

struct consumer_field {
    char name[kTlmNameMax + 1]; // the field's name inside its section
    uint32_t type;
    uint32_t size;
    uint32_t count;
    uint32_t section; // index in the consumer's sections
    uint8_t *destination;
    size_t stride;     // bytes between two samples in the destination
    uint32_t capacity; // samples the destination holds
    timespec *timestamps;
    uint32_t src_offset;     // in the section's sample, known once attached
    uint32_t image_offset; // in a sample's image, the fields packed in order
    // Neighbouring fields that lie end to end are copied as one run: the
    // first field of a run carries its length in bytes, the others 0.
    uint32_t gather_len;  // from the sample to its image (known once attached)
    uint32_t scatter_len; // from the image to the destination
};

size_t bytes_of(const consumer_field &f)
{
    return size_t(f.size) * f.count;
}

// One copy of a sample's read: from the sample to its image (gather), or
// from the image to a destination (scatter, sample k at k * stride).
struct copy_run {
    uint32_t from;
    uint32_t to;
    uint32_t len;
};
struct scatter_run {
    uint8_t *destination;
    size_t stride;
    uint32_t from; // in the image
    uint32_t len;
};

// A sample as a read hands it out: its image and its time.
struct handed {
    const uint8_t *image;
    const timespec *time;
};

struct consumer_section {
    char name[kTlmNameMax + 1];
    char path[512]; // the section's file, fixed at registration
    tlm_section_view view;
    uint32_t capacity; // samples the smallest destination of the section holds
    uint32_t reads_since_check;
    // The file refused for its layout, so that it is reported once, not every read.
    bool refused;
    dev_t refused_dev;
    ino_t refused_ino;
    uint64_t refused_generation;
    // What the trust check's refusals of the section have logged.
    trust_refusals refusals;
    // The section's directory, walked and checked once and kept while it
    // exists, so that looking for an absent section costs a lookup.
    bool have_dir;
    int dir_fd;
    // The section's copies, computed once: the scatters and the timestamps'
    // destinations at completion, the gathers at each attach (they follow
    // the file's layout). Each array has room for one a field of the section.
    copy_run *gathers;
    uint32_t gather_count;
    scatter_run *scatters;
    uint32_t scatter_count;
    timespec **stamps;
    uint32_t stamp_count;
    // The section's latest samples as read, each in an image: one
    // image per sample its smallest destination holds, sample n in image
    // n % capacity, with its time. A sample read whole does not change, so
    // the next reads hand it out again from here, not from the ring; the
    // images go with the view they were read from.
    uint8_t *images;
    uint64_t *image_sample; // n + 1 of the sample in the image, 0 for none
    timespec *image_time;
    // A read's samples, latest first: the image each is handed out from.
    handed *handout;
};

} // namespace

struct shm_consumer {
    trust_policy policy;
    consumer_field *fields;
    size_t field_count;
    consumer_section *sections;
    size_t section_count;
    size_t image_size; // a sample's image: the registered fields packed in order
    bool completed;
};

namespace {

// Index of the consumer's section named name (made when new), or -ENOMEM.
int section_index(shm_consumer *c, const char *name, size_t len)
{
    for (size_t i = 0; i < c->section_count; i++)
        if (strlen(c->sections[i].name) == len && strncmp(c->sections[i].name, name, len) == 0)
            return int(i);
    consumer_section s{};
    memcpy(s.name, name, len);
    int r = tlm_section_path(s.name, s.path, sizeof s.path);
    if (r < 0)
        return r;
    if (!append(&c->sections, &c->section_count, s))
        return -ENOMEM;
    return int(c->section_count - 1);
}

bool field_shape_valid(uint32_t type, uint64_t size, uint64_t count)
{
    return tlm_type_size(type) != 0 && size == tlm_type_size(type) && count >= 1 && count <= kTlmMaxSampleSize;
}

// Every this many reads an attached consumer also checks that the name still
// leads to its file, so that a file removed or replaced without being marked
// closed (by hand, or by a producer of another user) is noticed too. One stat
// costs about as much as fifty reads: checked every read, it would dominate.
constexpr uint32_t kFileCheckInterval = 256;

bool still_named(consumer_section &s)
{
    if (++s.reads_since_check < kFileCheckInterval)
        return true;
    s.reads_since_check = 0;
    struct stat st;
    return stat(s.path, &st) == 0 && st.st_dev == s.view.dev && st.st_ino == s.view.ino;
}

void forget_dir(consumer_section &s)
{
    if (s.have_dir)
        close(s.dir_fd);
    s.have_dir = false;
}

// Opens the directory of s when s has none, or when the one it has was
// removed since: 0, or a negative errno (-EPERM with the reason in the view).
int open_section_dir(shm_consumer *c, consumer_section &s)
{
    struct stat st;
    if (s.have_dir && fstat(s.dir_fd, &st) == 0 && st.st_nlink > 0)
        return 0;
    forget_dir(s);
    const char *file = nullptr;
    int fd = open_dir_of(s.path, &c->policy, &s.view, &file);
    if (fd < 0)
        return fd;
    s.dir_fd = fd;
    s.have_dir = true;
    return 0;
}

// Attaches s, not attached, to its section file: 0 when its layout matches.
int open_view(shm_consumer *c, uint32_t index)
{
    consumer_section &s = c->sections[index];
    s.reads_since_check = 0;
    std::fill_n(s.image_sample, s.capacity, 0);
    int r = open_section_dir(c, s);
    if (r == 0)
        r = view_open_at(s.dir_fd, strrchr(s.path, '/') + 1, s.path, &c->policy, &s.view);
    if (r == -EPERM) {
        trust_report report = trust_refusal_seen(&s.refusals, s.view.refusal);
        if (report != trust_report::quiet)
            log_msg(kTag, LOG_ERR, "section \"%s\" refused: %s", s.name, s.view.refusal);
        if (report == trust_report::last)
            log_msg(kTag, LOG_ERR, "section \"%s\": further refusals are not reported until it is read again",
                    s.name);
        return r;
    }
    if (r == 0 && trust_refusals_clear(&s.refusals))
        log_msg(kTag, LOG_INFO, "section \"%s\" read again: its producer is trusted", s.name);
    if (r == 0 && strcmp(s.view.name, s.name) != 0) {
        tlm_view_close(&s.view);
        r = -EBADMSG;
    }
    if (r < 0)
        return r;
    if (tlm_view_closed(&s.view)) {
        tlm_view_close(&s.view);
        return -ENOENT;
    }
    if (s.refused && s.view.dev == s.refused_dev && s.view.ino == s.refused_ino &&
        s.view.generation == s.refused_generation) {
        tlm_view_close(&s.view);
        return -EPROTO;
    }
    for (size_t i = 0; i < c->field_count; i++) {
        consumer_field &f = c->fields[i];
        if (f.section != index)
            continue;
        tlm_field_info info;
        int found = tlm_view_find(&s.view, f.name, &info);
        if (found == -ENOENT) {
            log_msg(kTag, LOG_ERR, "section \"%s\" has no field \"%s\"", s.name, f.name);
        } else if (found >= 0 && (info.type != f.type || info.size != f.size || info.count != f.count)) {
            log_msg(kTag, LOG_ERR,
                    "section \"%s\" field \"%s\": expected %s[%u] (type %u, %u-byte elements), the section has "
                    "%s[%u] (type %u, %u-byte elements)",
                    s.name, f.name, tlm_type_name(f.type), f.count, f.type, f.size, tlm_type_name(info.type),
                    info.count, info.type, info.size);
        } else if (found >= 0) {
            f.src_offset = info.offset;
            bool joins = i > 0 && c->fields[i - 1].section == index &&
                         c->fields[i - 1].src_offset + bytes_of(c->fields[i - 1]) == f.src_offset;
            f.gather_len = joins ? 0 : uint32_t(bytes_of(f));
            if (joins) {
                size_t head = i - 1;
                while (c->fields[head].gather_len == 0)
                    head--;
                c->fields[head].gather_len += uint32_t(bytes_of(f));
            }
            continue;
        }
        s.refused = true;
        s.refused_dev = s.view.dev;
        s.refused_ino = s.view.ino;
        s.refused_generation = s.view.generation;
        tlm_view_close(&s.view);
        return found == -EBADMSG ? -EBADMSG : -EPROTO;
    }
    s.gather_count = 0;
    for (size_t i = 0; i < c->field_count; i++) {
        const consumer_field &f = c->fields[i];
        if (f.section == index && f.gather_len)
            s.gathers[s.gather_count++] = {f.src_offset, f.image_offset, f.gather_len};
    }
    s.refused = false;
    return 0;
}

// Attaches s to its section file if it is not attached, and follows a
// producer that has closed it. 0 when s is attached and its layout matches.
inline int attach(shm_consumer *c, uint32_t index)
{
    consumer_section &s = c->sections[index];
    if (s.view.base) {
        if (!tlm_view_closed(&s.view) && still_named(s))
            return 0;
        tlm_view_close(&s.view);
    }
    return open_view(c, index);
}

// Copies sample n of section s from the ring into image at: 0, or -EAGAIN
// when the sample is not whole in the ring.
int copy_image(const shm_consumer *c, consumer_section &s, uint64_t n, uint32_t at)
{
    uint8_t *image = s.images + at * c->image_size;
    s.image_sample[at] = 0; // a failed copy leaves it torn
    int r = read_slot(&s.view, n, &s.image_time[at], [&](const uint8_t *sample) {
        for (const copy_run *run = s.gathers, *end = run + s.gather_count; run < end; run++)
            memcpy(image + run->to, sample + run->from, run->len);
    });
    if (r < 0)
        return r;
    s.image_sample[at] = n + 1;
    return 0;
}

// Sample n of section s in its image, copied from the ring unless an
// earlier read did: 0 and the image in *out, or -EAGAIN.
inline int image_of(const shm_consumer *c, consumer_section &s, uint64_t n, handed *out)
{
    const uint32_t at = uint32_t(n % s.capacity);
    *out = {s.images + at * c->image_size, &s.image_time[at]};
    return s.image_sample[at] == n + 1 ? 0 : copy_image(c, s, n, at);
}

// One run's bytes of each handed-out sample, sample k at k strides.
template <uint32_t Len>
void scatter_samples(const consumer_section &s, const scatter_run &run, uint32_t count)
{
    uint8_t *to = run.destination;
    const size_t stride = run.stride;
    const uint32_t from = run.from;
    const uint32_t len = Len ? Len : run.len;
    for (const handed *h = s.handout, *end = h + count; h < end; h++, to += stride)
        memcpy(to, h->image + from, len);
}

// Hands the images of a read's count samples out to the section's
// destinations. Most runs are a field or two of four or eight bytes.
void hand_out(const consumer_section &s, uint32_t count)
{
    for (const scatter_run *run = s.scatters, *end = run + s.scatter_count; run < end; run++) {
        switch (run->len) {
        case 4: scatter_samples<4>(s, *run, count); break;
        case 8: scatter_samples<8>(s, *run, count); break;
        case 12: scatter_samples<12>(s, *run, count); break;
        case 16: scatter_samples<16>(s, *run, count); break;
        default: scatter_samples<0>(s, *run, count); break;
        }
    }
    for (uint32_t i = 0; i < s.stamp_count; i++)
        for (uint32_t k = 0; k < count; k++)
            s.stamps[i][k] = *s.handout[k].time;
}

// A writer laps a reader only when the ring turns over during one copy;
// a few retries ride that out.
constexpr int kLatestAttempts = 4;

// Reads the latest sample of section index as sample 0, then up to before
// earlier ones. Returns the number of earlier samples read, or a negative errno.
int read_section(shm_consumer *c, uint32_t index, uint32_t before, timespec *ts)
{
    int r = attach(c, index);
    if (r < 0)
        return r;
    consumer_section &s = c->sections[index];
    // Each destination holds at least capacity samples.
    before = std::min(before, s.capacity - 1);
    uint64_t latest = 0;
    r = -EAGAIN;
    for (int attempt = 0; attempt < kLatestAttempts && r == -EAGAIN; attempt++) {
        uint64_t written = tlm_view_written(&s.view);
        if (written == 0)
            return -EAGAIN;
        latest = written - 1;
        r = image_of(c, s, latest, &s.handout[0]);
    }
    if (r < 0)
        return r;
    // As many earlier samples as were asked for, written and held by the
    // ring (a view holds at least one sample). An earlier sample
    // overwritten meanwhile: the older ones are gone too.
    const uint32_t earlier = uint32_t(std::min<uint64_t>({before, latest, s.view.sample_count - 1u}));
    uint32_t got = 0;
    while (got < earlier && image_of(c, s, latest - got - 1, &s.handout[got + 1]) == 0)
        got++;
    hand_out(s, got + 1);
    if (ts)
        *ts = *s.handout[0].time;
    return int(got);
}

} // namespace

shm_consumer *consumer_create()
{
    if (failpoint_check("shm_consumer_create") < 0)
        return nullptr;
    shm_consumer *c = zeroed_new<shm_consumer>();
    if (c)
        trust_policy_load(&c->policy);
    return c;
}

int consumer_register_struct(shm_consumer *consumer, void *destination, const char *section,
                             const tlm_struct_desc *description)
{
    if (!consumer || consumer->completed || !destination || !tlm_section_name_valid(section) || !description ||
        description->flags != 0 || description->field_count == 0 || !description->fields ||
        description->field_count > kTlmMaxFields)
        return -EINVAL;
    int err = failpoint_check("shm_consumer_register");
    if (err < 0)
        return err;
    for (uint64_t i = 0; i < description->field_count; i++) {
        const tlm_field_desc &f = description->fields[i];
        if (!field_name_valid(f.name) || !field_shape_valid(f.type, f.size, f.count)) {
            log_msg(kTag, LOG_ERR, "section \"%s\": field %llu of the description is invalid", section,
                    static_cast<unsigned long long>(i));
            return -EINVAL;
        }
    }
    int index = section_index(consumer, section, strlen(section));
    if (index < 0)
        return index;
    size_t first_new = consumer->field_count;
    for (uint64_t i = 0; i < description->field_count; i++) {
        const tlm_field_desc &f = description->fields[i];
        consumer_field cf{};
        snprintf(cf.name, sizeof cf.name, "%s", f.name);
        cf.type = f.type;
        cf.size = uint32_t(f.size);
        cf.count = uint32_t(f.count);
        cf.section = uint32_t(index);
        cf.destination = static_cast<uint8_t *>(destination) + f.offset;
        cf.stride = 0;
        cf.capacity = 1;
        if (!append(&consumer->fields, &consumer->field_count, cf)) {
            consumer->field_count = first_new;
            return -ENOMEM;
        }
    }
    return 0;
}

int consumer_register_array(shm_consumer *consumer, const tlm_array_entry *entries, size_t count)
{
    if (!consumer || consumer->completed || !entries || count == 0 || count > kTlmMaxFields)
        return -EINVAL;
    int err = failpoint_check("shm_consumer_register");
    if (err < 0)
        return err;
    for (size_t i = 0; i < count; i++) {
        const tlm_array_entry &e = entries[i];
        const char *dot = e.name ? strchr(e.name, '.') : nullptr;
        bool ok = dot && e.destination && field_shape_valid(e.type, e.size, e.per_sample) && e.capacity >= 1 &&
                  e.capacity <= kTlmMaxSampleCount && size_t(dot - e.name) <= kTlmNameMax &&
                  field_name_valid(dot + 1);
        if (ok) {
            char section[kTlmNameMax + 1] = {};
            memcpy(section, e.name, size_t(dot - e.name));
            ok = tlm_section_name_valid(section);
        }
        if (!ok) {
            log_msg(kTag, LOG_ERR, "samples-array entry %zu (\"%s\") is invalid", i, e.name ? e.name : "(null)");
            return -EINVAL;
        }
    }
    size_t first_new = consumer->field_count;
    for (size_t i = 0; i < count; i++) {
        const tlm_array_entry &e = entries[i];
        const char *dot = strchr(e.name, '.');
        int index = section_index(consumer, e.name, size_t(dot - e.name));
        consumer_field cf{};
        snprintf(cf.name, sizeof cf.name, "%s", dot + 1);
        cf.type = e.type;
        cf.size = uint32_t(e.size);
        cf.count = uint32_t(e.per_sample);
        cf.section = uint32_t(index);
        cf.destination = static_cast<uint8_t *>(e.destination);
        cf.stride = size_t(e.size) * e.per_sample;
        cf.capacity = uint32_t(e.capacity);
        cf.timestamps = e.timestamps;
        if (index < 0 || !append(&consumer->fields, &consumer->field_count, cf)) {
            consumer->field_count = first_new;
            return index < 0 ? index : -ENOMEM;
        }
    }
    return 0;
}

int consumer_complete(shm_consumer *consumer)
{
    if (!consumer || consumer->completed || consumer->field_count == 0)
        return -EINVAL;
    int err = failpoint_check("shm_consumer_complete");
    if (err < 0)
        return err;
    size_t total = 0;
    size_t head = 0;
    for (size_t i = 0; i < consumer->field_count; i++) {
        consumer_field &f = consumer->fields[i];
        f.image_offset = uint32_t(total);
        total += bytes_of(f);
        if (total > kTlmMaxSampleSize)
            return -EINVAL;
        // Single-sample fields of one section whose destinations lie end to end.
        const consumer_field *prev = i > 0 ? &consumer->fields[i - 1] : nullptr;
        bool joins = prev && prev->section == f.section && prev->stride == 0 && f.stride == 0 &&
                     !prev->timestamps && !f.timestamps && prev->destination + bytes_of(*prev) == f.destination;
        consumer_section &s = consumer->sections[f.section];
        s.capacity = s.capacity ? std::min(s.capacity, f.capacity) : f.capacity;
        if (joins) {
            f.scatter_len = 0;
            consumer->fields[head].scatter_len += uint32_t(bytes_of(f));
        } else {
            head = i;
            f.scatter_len = uint32_t(bytes_of(f));
        }
    }
    for (size_t i = 0; i < consumer->section_count; i++) {
        consumer_section &s = consumer->sections[i];
        size_t fields = 0;
        for (size_t j = 0; j < consumer->field_count; j++)
            fields += consumer->fields[j].section == i;
        free(s.gathers); // left by a completion that ran short of memory
        free(s.scatters);
        free(s.stamps);
        free(s.images);
        free(s.image_sample);
        free(s.image_time);
        free(s.handout);
        s.scatter_count = s.stamp_count = 0;
        s.gathers = static_cast<copy_run *>(calloc(fields, sizeof(copy_run)));
        s.scatters = static_cast<scatter_run *>(calloc(fields, sizeof(scatter_run)));
        s.stamps = static_cast<timespec **>(calloc(fields, sizeof(timespec *)));
        s.images = static_cast<uint8_t *>(calloc(s.capacity, total));
        s.image_sample = static_cast<uint64_t *>(calloc(s.capacity, sizeof(uint64_t)));
        s.image_time = static_cast<timespec *>(calloc(s.capacity, sizeof(timespec)));
        s.handout = static_cast<handed *>(calloc(s.capacity, sizeof(handed)));
        if (!s.gathers || !s.scatters || !s.stamps || !s.images || !s.image_sample || !s.image_time || !s.handout)
            return -ENOMEM;
        for (size_t j = 0; j < consumer->field_count; j++) {
            const consumer_field &f = consumer->fields[j];
            if (f.section != i)
                continue;
            if (f.scatter_len)
                s.scatters[s.scatter_count++] = {f.destination, f.stride, f.image_offset, f.scatter_len};
            if (f.timestamps)
                s.stamps[s.stamp_count++] = f.timestamps;
        }
    }
    consumer->image_size = total;
    consumer->completed = true;
    return 0;
}

int consumer_get_samples(shm_consumer *consumer, const timespec *time, int method, uint32_t before,
                         uint32_t after, uint32_t *out_before, uint32_t *out_after)
{
    if (!consumer || !consumer->completed)
        return -EINVAL;
    if (time || method != kTlmMethodLatest || after != 0)
        return -EOPNOTSUPP;
    uint32_t fewest = before;
    for (size_t i = 0; i < consumer->section_count; i++) {
        int r = read_section(consumer, uint32_t(i), before, nullptr);
        if (r < 0)
            return r;
        if (uint32_t(r) < fewest)
            fewest = uint32_t(r);
    }
    if (out_before)
        *out_before = fewest;
    if (out_after)
        *out_after = 0;
    return 0;
}

int consumer_get_sample_at(shm_consumer *consumer, const timespec *time, int method, timespec *timestamp)
{
    if (!consumer || !consumer->completed)
        return -EINVAL;
    if (time || method != kTlmMethodLatest)
        return -EOPNOTSUPP;
    for (size_t i = 0; i < consumer->section_count; i++) {
        int r = read_section(consumer, uint32_t(i), 0, i == 0 ? timestamp : nullptr);
        if (r < 0)
            return r;
    }
    return 0;
}

void consumer_destroy(shm_consumer *consumer)
{
    if (!consumer)
        return;
    for (size_t i = 0; i < consumer->section_count; i++) {
        tlm_view_close(&consumer->sections[i].view);
        forget_dir(consumer->sections[i]);
        free(consumer->sections[i].gathers);
        free(consumer->sections[i].scatters);
        free(consumer->sections[i].stamps);
        free(consumer->sections[i].images);
        free(consumer->sections[i].image_sample);
        free(consumer->sections[i].image_time);
        free(consumer->sections[i].handout);
    }
    free(consumer->sections);
    free(consumer->fields);
    free(consumer);
}
