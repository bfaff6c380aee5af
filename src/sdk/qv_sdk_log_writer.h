// The SDK log's writer. An SDK call only copies its formatted line into a staging buffer; a
// background thread writes the buffer to the file at least every 200 ms, or sooner when it fills
// up. A slow disk therefore holds up no application thread, until the disk falls so far behind
// that the staging buffers are full: the caller then writes the staged lines itself, waiting for
// the disk, so that no line is ever lost. A forked child has no writer thread: there every line
// goes to the file at once, with one write() of its own.
#ifndef QV_SDK_LOG_WRITER_H
#define QV_SDK_LOG_WRITER_H

#include <cstddef>
#include <cstdio>

// Bytes of each of the two staging buffers.
constexpr size_t QV_SDK_LOG_STAGE_BYTES = 1 << 20;

// Starts writing staged lines to fp (which the caller opened, flushed and will close; later lines
// go to its descriptor, not through the stream). Allocates the staging buffers; the thread starts
// with the first line. Returns false, staging nothing, when memory is short; lines are then
// written straight to the file. A writer already open is closed first.
bool qvSdkLogWriterOpen(FILE* fp);

// Stages one line (len bytes, newline included). Waits for the disk only when both staging
// buffers are full. NotOpen, doing nothing, while no writer is open. Any thread.
enum class QVSdkLogAppend { Written, NotOpen };
QVSdkLogAppend qvSdkLogWriterAppend(const char* line, size_t len);

// Writes every staged line to the file. Waits for a write in progress. Any thread.
void qvSdkLogWriterFlush();

// Flushes, stops the thread and frees the buffers; fp is left open. Nothing when none is open.
void qvSdkLogWriterClose();

#endif
