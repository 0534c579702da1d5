/* Makes the journal's events of what passes the crossing. */
#ifndef HOST_LINES_H
#define HOST_LINES_H

#include "crossing/crossing.h"
#include "watch/journal.h"

namespace host {

class Lines : public crossing::Listener {
public:
    explicit Lines(Journal &journal) : journal_(journal)
    {
    }

    void pass(crossing::Passage &passage, const crossing::Next &next) override;

private:
    Journal &journal_;
};

} // namespace host

#endif
