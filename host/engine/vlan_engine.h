/*
 * The VLAN half of the simulated forwarding engine: what the VLAN translation hook leads to.
 *
 * Per direction the engine holds edit commands by id and mappings of profile and tag format to
 * command, as it was told to program them, and edits the tags of frames by them.
 *
 * Commands. A command stays until its id is programmed again. The module never takes one back: it
 * frees the id when no mapping needs it any more, and a command that no mapping names does nothing.
 *
 * Mappings. 127 fit, and one more in an overflow place, which every further one takes over. Several
 * mappings of one profile and format to different commands are all held; the one that was programmed
 * last applies, and when it is removed the one before it applies again.
 *
 * Refused, with a line to the sink and a result other than 0, and without any change:
 *   - a command flag other than a direction with "new command", "new mapping" or both, or with
 *     "remove mapping" alone; profile, command, format or action code out of range;
 *   - a mapping to a command that was never given, or that differs from the request's;
 *   - a new command under an id that a mapping (not in the overflow place) uses for another command;
 *   - the removal of a mapping that is not held.
 *
 * What this engine makes of a request's codes:
 *   tag format  1 untagged                 5 S-tag outside, C-tag inside
 *               2 one C-tag                6 any other two tags
 *               3 priority tag: one, VID 0 7 three tags or more
 *               4 one S-tag                  (C-tag: TPID 0x8100; S-tag: any other TPID)
 *   TPID index  0 0x8100, 1 0x88a8, 2 0x9100, 3 0x9200
 *   actions     1 keep, 2 set, 3 clear, 4 copy, of each of a tag's three parts:
 *               tag         set: the VID of the forwarding entry, on a new tag where there is none;
 *                           clear: the tag is removed; copy: the VID of the other tag, likewise
 *               priority    set: the forwarding entry's; clear: 0; copy: the other tag's
 *               TPID        set: the indexed one; clear: 0x8100; copy: the other tag's
 * The outer tag is a frame's first, the inner its second; "the other" is meant as it arrived, and
 * copying from a tag that is not there keeps. A new tag starts as TPID 0x8100, VID 0, priority 0. A
 * frame whose profile and format have no mapping passes as it is.
 *
 * Threads: any. The sink is told with the engine's mutex held. check() reads the module's tables, which
 * nobody guards: not beside an assignment or release.
 */
#ifndef HOST_VLAN_ENGINE_H
#define HOST_VLAN_ENGINE_H

#include <array>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "inspect/vlan_tables.h"
#include "l2rsm_vlan_edit.h"

namespace host {

using namespace inspect;

struct VlanTag {
    u16 tpid = 0x8100;
    u16 vid = 0;
    u8 pri = 0;

    bool operator==(const VlanTag &) const = default;
};
using VlanTags = std::vector<VlanTag>; // outermost first

/* What the forwarding entry that names the profile brings along. */
struct VlanEntry {
    u16 outerVid = 1;
    u16 innerVid = 1;
    u8 outerPri = 0;
    u8 innerPri = 0;
};

/* The tag format of a frame, 1..7. */
u32 vlanFormat(const VlanTags &tags);

class VlanEngine {
public:
    using Sink = std::function<void(std::string_view)>;

    explicit VlanEngine(Sink refusals) : refusals_(std::move(refusals))
    {
    }

    /* The hook: 0, or 1 when the engine refuses. */
    u32 program(const VlanEditInfo *info, u16 profileId, u16 commandId, u32 commandFlag);

    struct Passage {
        u32 format;                 // of the frame as it arrived
        std::optional<u16> command; // that was applied
        VlanTags tags;              // of the frame as it leaves
    };
    /* A frame passes under a profile. direction: 2 egress, else ingress. */
    Passage send(u32 direction, u16 profileId, const VlanTags &tags, const VlanEntry &entry) const;

    /*
     * The differences between the module's books and the engine, one line each: a booked mapping or
     * command that is not what the engine holds, a mapping that only the engine holds, and a
     * mapping in entries 1..127 whose profile or command the module has given up.
     */
    std::vector<std::string> check(u32 direction, const VlanTables &tables) const;

    struct Mapping {
        u16 profileId;
        u32 tagFormat;
        u16 commandId;
        bool overflow; // in the overflow place

        bool names(u16 profile, u32 format, u16 command) const
        {
            return profileId == profile && tagFormat == format && commandId == command;
        }
    };
    /* What is held, for a look at it: commands by id; mappings, the newest last. */
    std::map<u16, VlanEditCommand> commands(u32 direction) const
    {
        std::lock_guard lock(mutex_);
        return half(direction).commands;
    }
    std::vector<Mapping> mappings(u32 direction) const
    {
        std::lock_guard lock(mutex_);
        return half(direction).mappings;
    }

private:
    struct Half {
        std::map<u16, VlanEditCommand> commands;
        std::vector<Mapping> mappings;
    };

    const Half &half(u32 direction) const
    {
        return halves_[direction == L2RES_VLAN_EGRESS ? 1 : 0];
    }
    static std::string refusal(const Half &half, const VlanEditInfo *info, u16 profileId,
                               u16 commandId, u32 actions);
    static void addMapping(Half &half, u16 profileId, u32 tagFormat, u16 commandId);
    static void removeMapping(Half &half, u16 profileId, u32 tagFormat, u16 commandId);

    const Sink refusals_;
    mutable std::mutex mutex_;
    std::array<Half, 2> halves_; // ingress, egress; guarded by mutex_
};

} // namespace host

#endif
