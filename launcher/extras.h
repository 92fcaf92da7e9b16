// What is made of a recording besides itself: a copy for browsers, a contact sheet, a checksum.
#pragma once

#include "sharecopy.h"

#include <QString>

#include <functional>

class Progress;
struct Outcome;

struct ExtraWishes {
    QString share; ///< the copy's absolute path; empty: none
    QString contactSheet; ///< likewise
    bool sha256 = false;
    bool overwrite = false; ///< what is there already
};

/// Asked again and again while a copy is made; takes what signals have come.
using IsCancelled = std::function<bool()>;

/// Makes what is wished for of outcome's file, and puts it there; what cannot be made is a warning there. Blocks.
void makeExtras(const ExtraWishes& wishes, Outcome& outcome, Progress& progress, const IsCancelled& isCancelled);

/// The copy appears whole or not at all. Blocks.
ShareCopy writeShareCopy(const QString& recording, const QString& copy, bool overwrite, Progress& progress,
    const IsCancelled& isCancelled);
