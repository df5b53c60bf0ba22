// The keys of the link's state, one line each: what a key holds, which file owns it, what it means.
//
// "reset": set to its first value by _reset_scan_state, at start and when a peer is taken. A key
// comes into being on first use; readers give a default, also for a value of another kind. What is
// in a map or a list its owner checks; "anything" is for what only its owner can judge: editor
// objects, connections, transforms.
#pragma once

#include "python/object.h"

namespace kestrix {

/// What a state value is; one of another kind counts as absent, as None does. A number is
/// finite, a whole one within 53 bits; a time is a number that start() forgets; maps, lists and
/// sets are dict, list and set themselves, no classes of their own behaviour.
enum class Holds { anything, truth, number, time, text, map, list, set };

/// A key of the state; there is no other way to name one.
struct StateKey {
  Name (*name)();
  Holds holds;
};

// clang-format off
#define KESTRIX_STATE_KEYS(KEY)                                                                    \
  /* session/server.h */                                                                           \
  KEY(handle, anything)      /* of the tick's callback */                                          \
  KEY(server, anything)      /* listening socket */                                                \
  KEY(port, number)          /* that the server is bound to */                                     \
  KEY(conn, anything)        /* the peer's connection */                                           \
  KEY(cands, list)           /* [connection, time] beside a live peer */                           \
  KEY(throttle_saved, truth) /* the editor's background throttle before the peer came */           \
  KEY(greeted, truth)        /* the peer has said hello */                                         \
  /* session/handshake.h */                                                                        \
  KEY(client, text)          /* the peer's name for itself */                                      \
  KEY(client_ver, number)    /* the peer's protocol version */                                     \
  KEY(client_ready, truth)   /* the peer has its copy of the level */                              \
  KEY(client_have, list)     /* ids that the peer has from before, until the next snapshot */      \
  KEY(client_pid, number)    /* the peer's process */                                              \
  KEY(scope, map)            /* reset: what is mirrored */                                         \
  KEY(sel_sync, truth)       /* reset: the peer wants the selection */                             \
  KEY(ue_format, text)       /* "GLB" or "FBX" */                                                  \
  KEY(ue_textures, truth)    /* textures go with exports */                                        \
  /* session/tick.h */                                                                             \
  KEY(in_tick, truth)        /* a step is running */                                               \
  KEY(step_frame, number)    /* the engine's frame of the last tick */                             \
  KEY(slow_t, time)          /* time of the last slow block, seconds */                            \
  KEY(fast_t, time)          /* reset: time of the last fast scan, seconds */                      \
  KEY(pie, truth)            /* Play runs, as last polled */                                       \
  KEY(paused, truth)         /* reset: the pause state that the peer was told last */              \
  KEY(errors, number)        /* failed ticks */                                                    \
  KEY(cost, list)            /* [seconds, ticks, worst seconds] since the last report */           \
  /* link/held.h, dispatch.h */                                                                    \
  KEY(pending, list)         /* reset: messages held back, oldest first */                         \
  KEY(pending_world, text)   /* the world that the first of them was meant for */                  \
  KEY(pending_new, number)   /* how many came since they were last coalesced; absent: all */       \
  KEY(pending_next, text)    /* the level, not mirrored yet, that those left over may go to */     \
  KEY(busy_what, text)       /* the peer was told last what the editor is busy with */             \
  KEY(last_error, text)      /* traceback of the latest failure */                                 \
  /* link/host.h */                                                                                \
  KEY(lacking, set)          /* names of methods that this engine was found not to have */         \
  /* mirror/actors.h */                                                                            \
  KEY(kinds, map)            /* reset: id -> kind or None */                                       \
  KEY(bad_actors, set)       /* ids that were warned about */                                      \
  /* mirror/level_list.h */                                                                        \
  KEY(land_box, map)         /* id -> (time, low, high) of a landscape */                          \
  /* mirror/mirrored.h */                                                                          \
  KEY(known, map)            /* reset: id -> {"actor", "info"}, what the peer has been told */     \
  KEY(world, text)           /* reset: the mirrored world; empty before the first snapshot */      \
  KEY(xf_out, map)           /* id -> transform, to send at the end of the tick */                 \
  KEY(sent_assets, set)      /* paths whose entries went out since the last snapshot */            \
  KEY(sel_last, list)        /* reset: ids of the selection that was reported last */              \
  /* mirror/walk.h */                                                                              \
  KEY(scan_ids, list)        /* reset: ids of the present pass, in listing order */                \
  KEY(scan_i, number)        /* reset: where in scan_ids the walk goes on */                       \
  KEY(scan_quota, number)    /* how many actors the walk may look at now */                        \
  KEY(list_t, time)          /* time of the last listing, seconds */                               \
  KEY(pass_n, number)        /* finished listings */                                               \
  /* mirror/drags.h */                                                                             \
  KEY(touched, map)          /* reset: id -> [transform before the drag, time of its last move] */ \
  /* assets/catalogue.h */                                                                         \
  KEY(assets, map)           /* path -> asset entry */                                             \
  KEY(asset_rev, map)        /* path -> revision */                                                \
  /* assets/export_queue.h */                                                                      \
  KEY(eq, map)               /* reset: the export queue */                                         \
  KEY(full_t, time)          /* time of the last heavy export, seconds */                          \
  /* assets/edited_meshes.h */                                                                     \
  KEY(dirty_t, time)         /* time of the last look for edited meshes, seconds */                \
  KEY(dirty_pk, set)         /* packages that were unsaved at that look */                         \
  KEY(dirty_sig, map)        /* path -> shape signature at that look, or None */                   \
  KEY(reimport_hooked, truth) /* the editor's reimport event is bound */                           \
  /* assets/overwriting.h */                                                                       \
  KEY(ours, set)             /* assets that the peer has overwritten */                            \
  KEY(backed_up, map)        /* path of an asset -> package of its backup */                       \
  KEY(edit_tmp, map)         /* path of an asset -> its temporary mesh */                          \
  /* materials/file_textures.h */                                                                  \
  KEY(tex_md5, map)          /* package path -> digest of the image last imported there */         \
  /* materials/clean_up.h */                                                                       \
  KEY(trash, map)            /* package path -> wall-clock time when it was put there */           \
  KEY(trash_t, time)         /* time of the last pass over them, seconds */                        \
  KEY(trash_pass, map)       /* reset: the pass that is under way */                               \
  KEY(unused, set)           /* material assets that nothing uses any more */                      \
  /* landscapes */                                                                                 \
  KEY(grass, map)            /* reset: landscape id -> its grass record */                         \
  KEY(grass_noted, set)      /* reset: landscapes whose grass was reported */                      \
  /* lights_cameras/viewport_camera.h */                                                           \
  KEY(cam_key, anything)     /* config key of the pane that is followed */                         \
  KEY(cam_hooked, truth)     /* the editor's camera event is bound */                              \
  KEY(cam_send, truth)       /* reset: the peer wants the camera */                                \
  KEY(cam_last, list)        /* reset: the camera state that the peer has */                       \
  KEY(cam_probe, anything)   /* reset: the panes as last seen */                                   \
  /* editor/user_activity.h */                                                                     \
  KEY(fg, truth)             /* the user works in the editor, as last found out */                 \
  KEY(fg_t, time)            /* when that was, seconds */                                          \
  /* editor/ */                                                                                    \
  KEY(asking, text)          /* selection.h: what the peer asks its user */                        \
  KEY(tb_label, text)        /* toolbar.h: the button's label */                                   \
  KEY(brush_seen, map)       /* brush.h: settings that the peer has */                             \
  KEY(brush_t, time)         /* brush.h: time of the last look */                                  \
  KEY(fps, map)              /* frame_rate.h: the sampler */
// clang-format on

namespace key {
#define KESTRIX_KEY(name, kind) inline constexpr StateKey name{&operator""_n<#name>, Holds::kind};
KESTRIX_STATE_KEYS(KESTRIX_KEY)
#undef KESTRIX_KEY
}  // namespace key

}  // namespace kestrix
