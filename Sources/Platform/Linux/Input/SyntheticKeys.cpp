#include "SyntheticKeys.h"

#include <QDeadlineTimer>

#include <algorithm>
#include <vector>

namespace SyntheticKeys {

namespace {

struct Change {
    int keycode;
    bool pressed;
    QDeadlineTimer forgotten;
};

std::vector<Change>& announced()
{
    static std::vector<Change> changes;
    return changes;
}

}

void expect(int keycode, bool pressed)
{
    announced().push_back({keycode, pressed, QDeadlineTimer(1000)});
}

bool isOurs(int keycode, bool pressed)
{
    std::vector<Change>& changes = announced();
    std::erase_if(changes, [](const Change& change) { return change.forgotten.hasExpired(); });
    const auto match = std::find_if(
        changes.begin(), changes.end(), [&](const Change& change) { return change.keycode == keycode && change.pressed == pressed; });
    if (match == changes.end())
        return false;
    changes.erase(match);
    return true;
}

}
