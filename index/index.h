/* What the appliance's media services index: which of them the appliance has, and whether a path is theirs.
 *
 *     int recycle = 0;
 *     if (VEXOIndexIsNeed() && VEXOIndexIsEnabled("/volume1/photo/a.jpg", &recycle)) { … hand it to the indexer … }
 *
 * Conventions: paths and texts are NUL-terminated and stay the caller's. Answers are 1 or 0; what cannot be found out
 * is a 0. Nothing is logged, and the last error is what the platform's look-ups leave in it. The functions may be
 * called from any thread.
 *
 * Which services there are is read from /etc.defaults/vexoinfo.conf (a key is on when its value is "yes", in any case)
 * once in each thread: an answer holds for the life of the thread, that of a missing file or key (0) too. A changed
 * file is seen by threads that have not asked yet.
 */
#ifndef VEXOFILEOP_INDEX_INDEX_H
#define VEXOFILEOP_INDEX_INDEX_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Whether the appliance has the service. Behind each, its key. */
int VEXOPhotoServiceIsSupport(void);  /* supportphoto */
int VEXOMediaServiceIsSupport(void);  /* supportmediaservice */
int VEXOVideoServiceIsSupport(void);  /* supportreelhall */
int VEXOPPhotoServiceIsSupport(void); /* supportphotopersonal: photos of a user's own */
int VEXOFileIndexIsSupport(void);     /* supportfileindex */

/* Asks for all five, in that order, so that this thread knows them from here on. Returns the answer of
 * VEXOFileIndexIsSupport. */
int VEXOInitSupportValue(void);

/* Whether anything needs an index of media files: photo, media, video or personal photo service. The file index does
 * not count. Asks for all five services first. */
int VEXOIndexIsNeed(void);

/* Whether `path` is the directory `folder` (in any case) directly in the home of the user whose home the path is in, or
 * in that directory. `userOut` of `userOutSize` bytes receives the user's name (cut to fit) whenever the path is in a
 * home, whatever the answer; it may be null. 0 for a null `path` or `folder`.
 *
 * The home is resolved (symbolic links followed), `path` is not: the folder is looked for at the resolved home's length
 * in `path` as it is. Give a path by its volume, as VEXOPathResolve makes it. */
int VEXOIndexIsPersonalPackagePath(const char *path, const char *folder, char *userOut, int userOutSize);

/* Makes a path absolute and, where it is under /var/services/homes/, resolves its symbolic links. `out` has `outSize`
 * bytes and must not overlap `path`.
 *
 * An absolute path is copied to `out`. Where it is under the homes and can be resolved, `out` receives the resolved
 * path and is the result; else the result is `path` itself.
 *
 * A relative path is put behind the working directory and a "/", without a leading "./" when it has 3 characters or
 * more, and else as it is (".." too). The result is `out`, with the path resolved where it is under the homes and can
 * be.
 *
 * Whether a path is under the homes, and what it resolves to, never depends on `outSize`; what is stored does: it is
 * cut to `outSize` - 1 characters and a NUL, and nothing is ever written beyond them. A result of `outSize` - 1
 * characters may thus be another file's path: give 4096 bytes, which hold any path the system takes.
 *
 * Null for a null `path` or `out`, for `outSize` below 1, and when the working directory cannot be found out or memory
 * runs out (errno tells why); `out` is as it was then. */
const char *VEXOPathResolve(const char *path, char *out, int outSize);

/* Whether `path` is to be indexed: not in a recycle bin, and
 *
 * - in the share "homes" of a volume ("/volume1/homes/…", in any case): in the folder "photo" of a user's home while
 *   the personal photo service runs ("runpersonalpixhall" in /var/packages/Pixhall/etc/settings.conf), or in its
 *   folder "music" while the personal music library is on ("enable_personal_library" in
 *   /var/packages/Tunehall/etc/audio.conf). The indexing switch of the share "homes" does not count;
 * - anywhere else: in a share whose indexing is switched on.
 *
 * `isRecycle` (may be null) receives what VEXOShareIsShareRecycle says of the path: 0 when it is in no recycle bin. It
 * is left alone for a null `path`. The settings are read on each call. */
int VEXOIndexIsEnabled(const char *path, int *isRecycle);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
