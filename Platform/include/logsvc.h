// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef LOGSVC_H
#define LOGSVC_H

/**
 * @file
 * The platform log. A line has a priority, the tag of a component, and a text.
 *
 * On the Linux platform a line is sent to the systemd journal if the journal's socket exists.
 * Otherwise it is written to standard error with local time, priority letter, tag and text. The
 * whole line is cut to 4096 bytes:
 *
 *     03-14 15:09:26.535 E/TALLYRA: text
 *
 * Logging does not wait for a reader. If the pipe, terminal, socket or journal is full, the line is
 * dropped. Before the next line that can be written, the log reports the number of dropped lines:
 *
 *     03-14 15:09:26.535 E/LOGSVC: 12 lines dropped
 *
 * Logging never changes the flags of the host's standard error, and raises no signal if the reader
 * of a pipe has exited.
 *
 * Two environment variables are read once, at the first call in the process:
 *
 *     LOGSVC_LEVEL   debug, info, error or off: the lowest priority written (default: info)
 *     LOGSVC_OUTPUT  journal or stderr: the destination (default: journal if its socket exists)
 *
 * An unknown value is reported once on standard error, and the default is used.
 *
 * If standard error is closed at the first call, no line is ever written to it, because the host
 * may open another file under its number later.
 */

#ifdef __cplusplus
extern "C" {
#endif

/** Log buffers. */
enum logsvc_buffer {
    LOGSVC_MAIN = 0 /**< The main log, the only buffer. */
};

/** Priorities; a larger number is more important. */
enum logsvc_priority {
    LOGSVC_DEBUG = 3, /**< Details for developers; letter D. */
    LOGSVC_INFO = 4,  /**< Normal operation; letter I. */
    LOGSVC_ERROR = 6  /**< An operation failed; letter E. */
};

/** Lets compilers check the arguments of a function like printf(). */
#if defined(__GNUC__)
#define LOGSVC_PRINTF(text, first) __attribute__((format(printf, text, first)))
#else
#define LOGSVC_PRINTF(text, first)
#endif

/**
 * Writes one line to the log.
 *
 * A line below the current level costs one comparison: it is not formatted, and the call returns 0.
 * Line breaks inside the text are kept; one at the end is optional.
 *
 * Threads: may be called from any thread, and from several at the same time. Lines of different
 * threads never mix. Not async-signal-safe. Preserves errno. Not a cancellation point.
 *
 * @param buffer    LOGSVC_MAIN.
 * @param priority  LOGSVC_DEBUG, LOGSVC_INFO or LOGSVC_ERROR.
 * @param tag       The component's name, zero-terminated. Not kept. NULL stands for an empty tag.
 * @param format    A printf(3) format, followed by its arguments. Not kept.
 * @return 0 when the line was written or is below the level; -EINVAL for an unknown buffer or
 *         priority, a NULL format, or a format that printf rejects; -EAGAIN when the line was
 *         dropped; otherwise the negative errno value of the failed write.
 */
int logsvc_print(int buffer, int priority, const char* tag, const char* format, ...)
    LOGSVC_PRINTF(4, 5);

#ifdef __cplusplus
}
#endif

#endif  // LOGSVC_H
