// SPDX-License-Identifier: Apache-2.0
// The flight recording: one CSV row per successful read of the sensor data
// record, stamped with the monotonic time at which the read returned.
//
// Columns are read by their header names (docs/recording.md). A sub-record's
// values persist from row to row, so a reader that wants fresh values
// filters on the bits of the `updated` column.
#pragma once

#include <sensors/data.h>

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>

class host_record {
public:
    // Creates (truncates) path and writes the header line. Null with *error
    // naming the file and the reason when it cannot be created.
    static std::unique_ptr<host_record> open(const std::string &path, std::string *error);
    // Records into a stream the caller keeps and closes; writes the header.
    explicit host_record(FILE *stream);
    ~host_record(); // flushes; closes the file that open() created
    host_record(const host_record &) = delete;
    host_record &operator=(const host_record &) = delete;

    // One row for a read that returned at monotonic time `at`. Buffered:
    // nothing reaches the file before the buffer fills or flush() runs.
    void row(const timespec &at, const sensors_data &data);
    // False when any write so far has failed (a full disk, say).
    bool flush();
    uint64_t rows() const { return rows_; }

    // The header line, without its newline.
    static const char *header();

private:
    host_record(FILE *stream, bool owns);

    FILE *out_;
    bool owns_;
    uint64_t rows_ = 0;
};
