// The SDK log's writer. An SDK call only copies its formatted line into a staging buffer; a
// background thread writes the buffer to the file at least every 200 ms, or sooner when it fills
// up. A slow disk therefore never holds up the application: the file write happens on that
// thread, and when the disk cannot keep up with the lines the excess is dropped and counted
// (the file then gets a line saying how many).
#ifndef QV_SDK_LOG_WRITER_H
#define QV_SDK_LOG_WRITER_H

#include <cstddef>
#include <cstdio>

// Bytes of each of the two staging buffers.
constexpr size_t QV_SDK_LOG_STAGE_BYTES = 1 << 20;

// Starts writing staged lines to fp (which the caller opened and will close). Allocates the
// staging buffers; the thread starts with the first line. Returns false, staging nothing, when
// memory is short; lines are then written straight to fp. A writer already open is closed first.
bool qvSdkLogWriterOpen(FILE* fp);

// Stages one line (len bytes, newline included). Never waits for the disk: Dropped (and counted)
// when the staging buffer is full. Without staging buffers the line is written to fp directly.
// NotOpen, doing nothing, while no writer is open. Any thread.
enum class QVSdkLogAppend { Written, Dropped, NotOpen };
QVSdkLogAppend qvSdkLogWriterAppend(const char* line, size_t len);

// Writes every staged line to the file and flushes it. Waits for a write in progress. Any thread.
void qvSdkLogWriterFlush();

// Flushes, stops the thread and frees the buffers; fp is left open. Nothing when none is open.
void qvSdkLogWriterClose();

// Lines dropped since the process started.
long long qvSdkLogWriterDropped();

#endif
