// The one pthread_atfork registration of the library, running the stages in rank order.
#include "support/fork.h"

#include <pthread.h>

#include <algorithm>
#include <vector>

namespace {

struct Stage {
    OxelForkRank rank;
    std::function<void()> prepare, parent, child;
};

// Never destroyed: a fork may come while the library is being unloaded at exit.
std::vector<Stage>& stages()
{
    static auto* list = new std::vector<Stage>;
    return *list;
}

void prepareAll()
{
    for (const Stage& s : stages())
        if (s.prepare)
            s.prepare();
}

void parentAll()
{
    for (auto s = stages().rbegin(); s != stages().rend(); ++s)
        if (s->parent)
            s->parent();
}

void childAll()
{
    for (auto s = stages().rbegin(); s != stages().rend(); ++s)
        if (s->child)
            s->child();
}

}  // namespace

bool oxelOnFork(OxelForkRank rank, std::function<void()> prepare, std::function<void()> parent,
                std::function<void()> child)
{
    std::vector<Stage>& list = stages();
    if (list.empty())
        pthread_atfork(prepareAll, parentAll, childAll);
    // After the stages of lower or equal rank: equal ranks keep the order of registration.
    auto at = std::upper_bound(list.begin(), list.end(), rank,
                               [](OxelForkRank r, const Stage& s) { return r < s.rank; });
    list.insert(at, Stage{rank, std::move(prepare), std::move(parent), std::move(child)});
    return true;
}
