// The command line of a FileTask.
#include "filetask.h"

#include "newfile.h"
#include "optionreader.h"
#include "plaintext.h"

#include <QFileInfo>

namespace {

void readVerify(OptionReader& reader, FileTask& task)
{
    reader.refuseAllBeside("verify", {"json", "quiet", "sha256", "contact-sheet", "force"});
    task.extras = reader.extras(QString());
    if (isSameFile(task.file, task.extras.contactSheet))
        reader.refuse(QStringLiteral("--contact-sheet: '%1' is the file that is verified")
                          .arg(plainText(reader.text("contact-sheet"))));
}

void readShare(OptionReader& reader, const QStringList& positional, FileTask& task)
{
    const QString option = QStringLiteral("--share-only");
    reader.refuseAllBeside("share-only", {"quiet", "force"});
    if (positional.isEmpty())
        return reader.refuse(
            QStringLiteral("--share-only: the name of the copy is missing (--share-only FILE COPY.webm)"));
    const QString& copy = positional.constFirst();
    if (isSameFile(task.file, copy))
        return reader.refuse(QStringLiteral("--share-only: '%1' is the recording itself").arg(plainText(copy)));
    const NewFileName chosen = chooseNewFile(option, copy, QStringLiteral(".webm"), reader.isSet("force"), QString());
    reader.refuse(chosen.error);
    task.copy = chosen.path;
    task.extras.overwrite = reader.isSet("force");
}

}

std::optional<FileTask> readFileTask(OptionReader& reader, const QStringList& positional)
{
    using Kind = FileTask::Kind;
    FileTask task;
    const char* option = nullptr;
    for (const auto& [name, kind] : {std::pair("verify", Kind::Verify), std::pair("share-only", Kind::Share),
             std::pair("explain", Kind::Explain)}) {
        if (!option && reader.isSet(name)) {
            option = name;
            task.kind = kind;
        }
    }
    const qsizetype expected = option && task.kind == Kind::Share ? 1 : 0;
    if (positional.size() > expected)
        reader.refuse(QStringLiteral("unexpected argument '%1'").arg(plainText(positional[expected])));
    if (!option)
        return std::nullopt;
    task.file = reader.text(option);
    task.json = reader.isSet("json");
    task.quiet = reader.isSet("quiet");
    if (task.file.isEmpty())
        reader.refuse(QStringLiteral("--%1: the name of the file is empty").arg(QLatin1String(option)));
    if (task.kind == Kind::Verify)
        readVerify(reader, task);
    else if (task.kind == Kind::Share)
        readShare(reader, positional, task);
    else
        reader.refuseAllBeside("explain", {});
    return task;
}
