#pragma once

#include <QColor>

/// Says whether an item has decided on a setting itself. For numbers, that depends on the setting.
inline bool isOwn(const QColor& color)
{
    return color.isValid();
}

inline bool isOwn(Qt::CheckState state)
{
    return state != Qt::PartiallyChecked;
}

/// Returns an item's own value of a setting, or that of the network's default item while it is undecided.
template <typename Value> Value ownOrDefault(bool isOwn, const Value& own, const Value& inherited)
{
    return isOwn ? own : inherited;
}

template <typename Value> Value ownOrDefault(const Value& own, const Value& inherited)
{
    return ownOrDefault(isOwn(own), own, inherited);
}
