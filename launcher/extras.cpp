// Each of them is made by itself: what fails costs nothing but itself.
#include "extras.h"

#include "checksum.h"
#include "contactsheet.h"
#include "newfile.h"
#include "outcome.h"
#include "plaintext.h"
#include "progress.h"

#include <algorithm>

namespace {

/// Empty, or why there is none.
QString writeContactSheet(const QString& recording, const QString& path, bool overwrite)
{
    const ContactSheet sheet = drawContactSheet(recording);
    if (!sheet.error.isEmpty())
        return sheet.error;
    NewFile file;
    QString error = file.make(path, overwrite);
    if (!error.isEmpty())
        return error;
    if (!sheet.image.save(file.temporaryPath(), "PNG"))
        return QStringLiteral("cannot write %1").arg(plainText(path));
    return file.commit();
}

}

ShareCopy writeShareCopy(
    const QString& recording, const QString& copy, bool overwrite, Progress& progress, const IsCancelled& isCancelled)
{
    using End = ShareCopy::End;
    NewFile file;
    QString error = file.make(copy, overwrite);
    if (!error.isEmpty())
        return {End::NotWritten, error, QString()};
    const auto goOn = [&](double done) {
        constexpr double most = 0.99; // the rest is its name
        progress.copied(std::min(done, most));
        return !isCancelled();
    };
    ShareCopy result = makeShareCopy(recording, file.temporaryPath(), &avcodec_find_encoder_by_name, goOn);
    if (result.end != End::Made)
        return result;
    error = file.commit();
    if (!error.isEmpty())
        return {End::NotWritten, error, QString()};
    progress.copied(1);
    return result;
}

void makeExtras(const ExtraWishes& wishes, Outcome& outcome, Progress& progress, const IsCancelled& isCancelled)
{
    const auto warn = [&](const QString& sentence) {
        if (sentence.isEmpty())
            return;
        progress.warn(sentence);
        outcome.warnings.append(sentence);
    };
    if (wishes.sha256) {
        outcome.sha256 = sha256Of(outcome.file);
        if (outcome.sha256.isEmpty())
            warn(QStringLiteral("cannot read %1 for its SHA-256").arg(plainText(outcome.file)));
    }
    if (!wishes.share.isEmpty()) {
        const ShareCopy copy = writeShareCopy(outcome.file, wishes.share, wishes.overwrite, progress, isCancelled);
        warn(copy.error);
        warn(copy.remark);
        if (copy.end == ShareCopy::End::Made)
            outcome.share = wishes.share;
    }
    if (!wishes.contactSheet.isEmpty()) {
        const QString error = writeContactSheet(outcome.file, wishes.contactSheet, wishes.overwrite);
        warn(error);
        if (error.isEmpty())
            outcome.contactSheet = wishes.contactSheet;
    }
}
