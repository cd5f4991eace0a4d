// SPDX-License-Identifier: Apache-2.0
// Shared-memory telemetry: named sections, one file each, written by a single
// producer and read by any number of consumers in other processes.
//
// A section file "<dir>/<section>.tlm" (dir: ORLUNE_TLM_DIR, else
// /run/orlune-tlm under ORLUNE_ROOT) holds a header (magic, version, geometry, period,
// generation), the field table (name, type, offset, size, count of every
// field) and a ring of sample slots. Each slot carries a sequence word: the
// producer makes it odd while it writes the slot and even, naming the sample
// it holds, when the slot is whole, so a reader that copies a slot and finds
// the same even word before and after has an untorn sample. Neither side
// takes a lock or allocates when it writes or reads a sample.
//
// Consumers attach lazily: registration and completion work before the
// section exists, and reads fail with -ENOENT until it appears. A producer
// that restarts writes a new file under the same name and marks the old one
// closed; consumers see the mark and follow the new file. Every 256 reads a
// consumer also checks that the name still leads to the file it reads, so a
// file removed or replaced without the mark is followed as well. The
// directory's path is fixed when a section is registered; the directory is
// reached and checked when a section is first attached, and again only once
// it has been removed, so that looking for an absent section costs a lookup.
//
// Trust: a section is read only from a trusted producer (platform/trust.h).
// Its directory and then its file are opened and checked through their
// descriptors before the file is mapped: every directory on the way owned by
// a trusted user, not writable by others unless sticky, and reached without
// following a symbolic link; the file a regular file (not a symbolic link)
// owned by a trusted user and not writable by others. A producer publishes
// only into such a directory and makes such files.
//
// Storage: a producer reserves its whole file before the file appears under
// its name (a full file system fails producer_complete, not a later store
// into the mapping), and a consumer maps only a file whose every byte is
// stored.
//
// Read results: 0 with the sample copied; -EAGAIN when the section exists
// but no sample was ever written (destinations untouched); -ENOENT when the
// section does not exist (or its producer has gone); -EBADMSG for a file that
// is not a valid section; -EPROTO when the section lacks a registered field or
// its type, size or count differ (logged once per section file); -EPERM when
// the section or its directory fails the trust check (logged with the reason
// when it differs from the last one, at most three times until a trusted
// producer is read again, which is logged at info level).
#pragma once

#include <sensors/sensor_tlm.h>

#include "platform/trust.h"

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <ctime>

inline constexpr const char *kTlmDirEnv = "ORLUNE_TLM_DIR";
inline constexpr const char *kTlmDefaultDir = "/run/orlune-tlm";
inline constexpr const char *kTlmFileSuffix = ".tlm";

// Longest section name and longest field name, in characters.
inline constexpr size_t kTlmNameMax = 63;
// Limits a consumer accepts from a section file.
inline constexpr uint32_t kTlmMaxFields = 1024;
inline constexpr uint32_t kTlmMaxSampleSize = 1u << 20;
inline constexpr uint32_t kTlmMaxSampleCount = 1u << 20;
inline constexpr uint64_t kTlmMaxFileSize = 1ull << 30;

// Bytes of one element of a type code, 0 for an unknown code.
size_t tlm_type_size(uint32_t type);
// Short name of a type code ("f32", "u8", ...), "?" for an unknown code.
const char *tlm_type_name(uint32_t type);

// Section names: 1 to 63 characters among letters, digits, '_' and '-'.
bool tlm_section_name_valid(const char *name);

// Directory of the section files: ORLUNE_TLM_DIR, else kTlmDefaultDir under
// ORLUNE_ROOT; 0 or -ENAMETOOLONG.
int tlm_dir(char *out, size_t size);
// Path of a section's file; 0, -EINVAL for an invalid name, -ENAMETOOLONG.
int tlm_section_path(const char *section, char *out, size_t size);

// ---- producers -------------------------------------------------------------

struct shm_producer;

// A producer of section, whose ring holds sample_count samples published
// every period_us microseconds. Null for an invalid name, a zero count or
// when memory is short. The section appears at producer_complete.
shm_producer *producer_create(const char *section, uint32_t sample_count, uint32_t period_us);

// Adds the record at address, described by layout, to every sample: the
// bytes from the record's start to the end of its last field are copied at
// each producer_put_sample. With a name, the record's fields are published
// as "name.field". 0; -EINVAL for a bad layout, a field name that is already
// taken or a producer already completed.
int producer_register_struct(shm_producer *producer, const void *address, const char *name,
                             const tlm_struct_desc *layout);

// Creates the section file (replacing a previous one of the same name, which
// is marked closed), with its whole size reserved. 0; -EINVAL without a
// registered record; -EPERM for a directory that fails the trust check;
// -ENOSPC when the file system cannot hold the file; -errno of the file
// system.
int producer_complete(shm_producer *producer);

// Publishes the registered records as one sample stamped with timestamp.
// 0; -EINVAL for a null argument or a producer not completed.
int producer_put_sample(shm_producer *producer, const timespec *timestamp);

// Marks the section closed, removes its file and frees the producer. Null is ignored.
void producer_destroy(shm_producer *producer);

// ---- consumers -------------------------------------------------------------

shm_consumer *consumer_create();

// Reads the fields of description from section into destination (each at
// its offset). 0; -EINVAL for a bad description or section name, or after
// completion.
int consumer_register_struct(shm_consumer *consumer, void *destination, const char *section,
                             const tlm_struct_desc *description);

// Registers count samples-array entries ("section.field" names). 0 or -EINVAL.
int consumer_register_array(shm_consumer *consumer, const tlm_array_entry *entries, size_t count);

// Ends registration (the consumer's own buffers are made here). 0, -EINVAL
// without a registration, -ENOMEM.
int consumer_complete(shm_consumer *consumer);

// The only time and method supported: none (the latest sample), method 0.
inline constexpr int kTlmMethodLatest = 0;

// Copies the latest sample of every registered section into the
// destinations and its time into timestamp (the time of the first
// registered section's sample; timestamp may be null). 0 or a negative errno
// (see above); -EOPNOTSUPP for a time or another method.
int consumer_get_sample_at(shm_consumer *consumer, const timespec *time, int method, timespec *timestamp);

// Copies the latest sample and up to before samples before it: the latest at
// index 0 of every destination, the one before at index 1, and so on, within
// each entry's capacity. Indexes beyond the samples that exist are left as
// they were. *out_before receives the number of earlier samples written (the
// smallest over the registered sections; never more than the smallest
// capacity less one), *out_after 0. 0 or a negative errno; after must be 0.
int consumer_get_samples(shm_consumer *consumer, const timespec *time, int method, uint32_t before,
                         uint32_t after, uint32_t *out_before, uint32_t *out_after);

// Null is ignored.
void consumer_destroy(shm_consumer *consumer);

// ---- inspection (tools, tests) ----------------------------------------------

// A validated read-only view of one section file.
struct tlm_field_info {
    char name[kTlmNameMax + 1];
    uint32_t type;
    uint32_t size;   // bytes of one element
    uint32_t count;  // elements
    uint32_t offset; // bytes from the start of the sample
};

struct tlm_section_view {
    const uint8_t *base = nullptr; // the mapping, nullptr when not open
    size_t map_size = 0;
    dev_t dev = 0;
    ino_t ino = 0;
    char name[kTlmNameMax + 1] = {};
    uint64_t generation = 0;
    uint32_t field_count = 0;
    uint32_t sample_size = 0;
    uint32_t sample_count = 0;
    uint32_t period_us = 0;
    uint32_t producer_pid = 0;
    uint32_t slot_size = 0;
    uint32_t slots_offset = 0;
    // Why the last open was refused with -EPERM; empty otherwise.
    char refusal[kTrustReasonMax] = {};
};

// Checks the file of section and its directory against the trust policy,
// maps the file and validates it. 0, -ENOENT, -EBADMSG, -EPERM (the reason
// in view->refusal), -errno.
int tlm_view_open(const char *section, tlm_section_view *view);
// Same, for a file given by its path (the section name is taken from the file).
int tlm_view_open_path(const char *path, tlm_section_view *view);
// Same, judged by policy.
int tlm_view_open_trusted(const char *path, const trust_policy *policy, tlm_section_view *view);
void tlm_view_close(tlm_section_view *view);

// Field i, copied out of the mapping and checked. 0 or -EBADMSG / -EINVAL.
int tlm_view_field(const tlm_section_view *view, uint32_t i, tlm_field_info *out);
// Index of the field named name, or -ENOENT.
int tlm_view_find(const tlm_section_view *view, const char *name, tlm_field_info *out);

// Samples written since the section was made.
uint64_t tlm_view_written(const tlm_section_view *view);
// Whether the producer has marked the section closed.
bool tlm_view_closed(const tlm_section_view *view);

// Copies sample number index (0 the first ever written) into out
// (sample_size bytes) and its time into timestamp. 0; -EAGAIN when that
// sample is not (or no longer) in the ring; -EINVAL for a short buffer.
int tlm_view_read(const tlm_section_view *view, uint64_t index, void *out, size_t size, timespec *timestamp);
