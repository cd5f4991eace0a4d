/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Telemetry descriptions and the telemetry section reader.
 *
 * Other processes (vision, gimbal stabilisation) publish their estimates in
 * named shared-memory telemetry sections. A consumer describes the fields it
 * wants by name, type and size, and where each lands in its own record; the
 * section reader wraps one such consumer for a module that reads the latest
 * sample of one section per acquisition cycle.
 */
#ifndef SENSORS_SENSOR_TLM_H
#define SENSORS_SENSOR_TLM_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include <sensors/api.h>

#ifdef __cplusplus
#define SENSORS_TLM_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
extern "C" {
#else
#define SENSORS_TLM_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

/*
 * Value type codes of a telemetry field. Producer and consumer must agree on
 * the code and the element size of every field they share: a signed and an
 * unsigned integer of the same width are different types.
 */
#define TLM_TYPE_BOOL 1u     /* one-byte flag, 0 or 1 */
#define TLM_TYPE_UINT8 2u
#define TLM_TYPE_UINT16 3u
#define TLM_TYPE_INT16 4u
#define TLM_TYPE_INT32 5u
#define TLM_TYPE_UINT32 6u
#define TLM_TYPE_INT64 7u
#define TLM_TYPE_UINT64 8u
#define TLM_TYPE_FLOAT 9u    /* 32-bit IEEE 754 */
#define TLM_TYPE_DOUBLE 10u  /* 64-bit IEEE 754 */
#define TLM_TYPE_CHAR 11u    /* text, count = room in bytes, not necessarily terminated */
#define TLM_TYPE_INT8 12u
#define TLM_TYPE_TIMESPEC 13u /* signed 64-bit seconds, signed 64-bit nanoseconds */

/* One field of a record: where it lies and what it holds. */
struct tlm_field_desc {
	uint64_t offset;  /* bytes from the start of the record */
	const char *name; /* name of the field in the section */
	uint32_t type;    /* TLM_TYPE_* */
	uint32_t reserved0;
	uint64_t size;    /* bytes of one element */
	uint64_t count;   /* elements, contiguous */
	uint64_t reserved[2]; /* 0 */
};

/* A record as a table of fields (a constant table per record kind). */
struct tlm_struct_desc {
	uint64_t flags; /* 0: no option is defined */
	uint64_t field_count;
	const struct tlm_field_desc *fields;
};

/*
 * A samples-array entry: one field of a section, read for the latest sample
 * and the samples before it. The name is "section.field": the section is
 * what comes before the first dot, the field name is the rest
 * ("gimbal_stab.est.state.ef_rate" is the field "est.state.ef_rate" of the
 * section "gimbal_stab"). Sample k (0 the latest, 1 the one before, ...)
 * lands at destination + k * size * per_sample, its time at timestamps[k].
 */
struct tlm_array_entry {
	void *destination;
	const char *name;
	uint32_t type;    /* TLM_TYPE_* */
	uint32_t reserved0;
	uint64_t size;       /* bytes of one element */
	uint64_t per_sample; /* elements per sample */
	uint64_t capacity;   /* samples the destination holds */
	struct timespec *timestamps; /* capacity entries, or NULL */
};

/* A consumer of telemetry sections (platform service, opaque here). */
struct shm_consumer;

/*
 * The telemetry section reader, embedded in the context of the module that
 * uses it. It owns only the consumer; the other addresses belong to the
 * owning module.
 */
struct sensor_tlm {
	struct shm_consumer *consumer; /* NULL until started, NULL again after clean */
	bool no_sample_yet;            /* set by init, cleared by the first successful read */
	uint8_t reserved[7];
	void *destination;             /* where the sample's fields are written */
	struct timespec *timestamp;    /* where the sample's time is written */
	const char *section;
	const struct tlm_struct_desc *description;
};

/*
 * Stores the section, description and destinations; creates nothing.
 * 0, or -EINVAL when an argument is missing or the reader already has a consumer.
 */
SENSORS_API int sensor_tlm_init(struct sensor_tlm *reader, const char *section,
				const struct tlm_struct_desc *description, void *destination,
				struct timespec *timestamp);

/*
 * Creates and registers the consumer. 0 (or the non-negative result of the
 * registration's completion); -EINVAL for a missing reader or one that is
 * already started; -ENOMEM when no consumer can be made; the negative error
 * of a failed registration (the reader is then cleaned).
 */
SENSORS_API int sensor_tlm_start(struct sensor_tlm *reader);

/*
 * Copies the latest sample of the section into the destination and its time
 * into the timestamp. The non-negative result of the read, -EINVAL for a
 * missing reader, or the read's error passed through sensor_tlm_filter_error.
 */
SENSORS_API int sensor_tlm_read_latest(struct sensor_tlm *reader);

/*
 * Before the first sample was ever read, any error becomes -EAGAIN (the
 * producer may simply not have started yet); afterwards errors pass as they are.
 */
SENSORS_API int sensor_tlm_filter_error(struct sensor_tlm *reader, int result);

/* Destroys the consumer; the reader keeps its settings and can be started again. */
SENSORS_API void sensor_tlm_clean(struct sensor_tlm *reader);

SENSORS_TLM_STATIC_ASSERT(offsetof(struct tlm_field_desc, name) == 8, "tlm_field_desc.name offset");
SENSORS_TLM_STATIC_ASSERT(offsetof(struct tlm_field_desc, type) == 16, "tlm_field_desc.type offset");
SENSORS_TLM_STATIC_ASSERT(offsetof(struct tlm_field_desc, size) == 24, "tlm_field_desc.size offset");
SENSORS_TLM_STATIC_ASSERT(offsetof(struct tlm_field_desc, count) == 32, "tlm_field_desc.count offset");
SENSORS_TLM_STATIC_ASSERT(sizeof(struct tlm_field_desc) == 56, "tlm_field_desc size");
SENSORS_TLM_STATIC_ASSERT(sizeof(struct tlm_struct_desc) == 24, "tlm_struct_desc size");
SENSORS_TLM_STATIC_ASSERT(offsetof(struct sensor_tlm, no_sample_yet) == 8, "sensor_tlm.no_sample_yet offset");
SENSORS_TLM_STATIC_ASSERT(offsetof(struct sensor_tlm, destination) == 16, "sensor_tlm.destination offset");
SENSORS_TLM_STATIC_ASSERT(offsetof(struct sensor_tlm, description) == 40, "sensor_tlm.description offset");

#ifdef __cplusplus
}
#endif

#endif /* SENSORS_SENSOR_TLM_H */
