/* Telling the file-change service of a change that it did not see.
 *
 * A program that changed files behind the back of the file-change monitor sends the event itself:
 *
 *     VLIBVXNotifyForce("/volume1/photo/new.jpg", "/volume1/photo/old.jpg", event);   // a rename
 *     VLIBVXNotifyForce("/volume1/photo/new.jpg", NULL, event);                       // anything else
 *
 * On the wire, a UNIX stream socket at /var/run/vexotifyd.sock, one connection a message: the length of the text with
 * its terminating NUL (8 bytes, unsigned, little-endian), then the text with that NUL, in writes of at most 1024 bytes:
 *
 *     { "type": "notify", "data": { "event": 2, "path": "\/volume1\/photo\/new.jpg", "path_old": "…" } }
 *
 * "path_old" is there only when a previous path was given. Bytes of a path that are no UTF-8 are sent as they are.
 */
#ifndef VEXOFILEOP_NOTIFY_NOTIFY_H
#define VEXOFILEOP_NOTIFY_NOTIFY_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Sends one change event to the file-change service. `path` is the path that changed, `pathOld` the one it had before a
 * rename, or null; both stay the caller's. `event` is the service's event code, passed on as it is.
 *
 * There is no result: nothing is logged, the last error is not touched, and the caller cannot learn whether the message
 * arrived. Where the service does not run, the call returns at once; so it does, with nothing sent, for a null `path`
 * or when memory runs out.
 *
 * Side effect: SIGPIPE is ignored in the whole process from the first call on.
 *
 * How long it takes. The call returns when the kernel has taken the whole message, read or not; one that fits into the
 * socket's buffer (some 90 KiB with the usual settings) never waits for a reader. Beyond that the service decides:
 * - A full queue of connections: the call waits in connect(), without a limit, until the service accepts one.
 * - A reader that pauses: the call waits with it. For each full second without a byte taken the position in the message
 *   moves back by one byte, so that the reader then gets as many bytes twice as there were such seconds, and that many
 *   bytes more than the length announced. (Zero bytes stand for what would lie before the message's first byte.) A
 *   reader that never reads again keeps the call waiting for as long as the connection is open.
 * - A service that closes the connection, or ends, before the last write, also one that never accepted: the call does
 *   not return, not even for the shortest message. Every write fails at once, each moves the position back by one, and
 *   the thread is busy until its process ends.
 *
 * A caller that must not hang on a broken service calls from a process it can do without. */
void VLIBVXNotifyForce(const char *path, const char *pathOld, int event);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
