// How much memory the kernel, and the groups that this process belongs to, still leave it.
#pragma once

#include <QString>

#include <optional>

namespace availablememory {

/**
 * Bytes that can be taken without anything being killed for it: what the whole machine has available, or less where a
 * memory control group of this process (version 1 or 2, or one above it) leaves less. File pages that the kernel can
 * drop count as available. Nothing when the machine's figure cannot be read; a group that cannot be read sets no
 * limit. processes and groups are the places where proc(5) and cgroups(7) are mounted.
 */
std::optional<qint64> read(
    const QString& processes = QStringLiteral("/proc"), const QString& groups = QStringLiteral("/sys/fs/cgroup"));

}
