// A truth report for people and for programs.
#include "truthreporttext.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>

namespace {

QString row(const QString& label, const QString& value)
{
    return label.leftJustified(28) + value + QLatin1Char('\n');
}

QString fixed(double value, int decimals = 1)
{
    return QString::number(value, 'f', decimals);
}

QString pointText(const QPointF& point)
{
    return QStringLiteral("(%1, %2)").arg(fixed(point.x()), fixed(point.y()));
}

QString channels(const auto& values, int decimals)
{
    QStringList texts;
    for (const double value : values)
        texts.append(fixed(value, decimals).rightJustified(5));
    return texts.join(QLatin1Char(' '));
}

QString timingRows(const TruthReport& report)
{
    if (!report.timing)
        return row(QStringLiteral("time error"), QStringLiteral("not measured: the window was not animated"));
    return row(QStringLiteral("time error, ms"),
               QStringLiteral("median %1, p95 %2, worst %3")
                   .arg(fixed(report.timing->medianMs), fixed(report.timing->p95Ms), fixed(report.timing->worstMs)))
        + row(QStringLiteral("drift, ms per minute"), fixed(report.timing->driftMsPerMinute, 2));
}

QString audioRows(const TruthReport& report)
{
    const auto duration = [](const std::optional<double>& ms) { return ms ? fixed(*ms) : QStringLiteral("none"); };
    QString text = row(QStringLiteral("duration, ms"),
        QStringLiteral("video %1, audio %2").arg(duration(report.videoDurationMs), duration(report.audioDurationMs)));
    if (!report.audio)
        return text;
    const TruthAudio& audio = *report.audio;
    text += row(QStringLiteral("beeps"),
        QStringLiteral("%1 heard, %2 missing, %3 stray")
            .arg(audio.beeps.size())
            .arg(audio.missedBeeps)
            .arg(audio.strayBeeps));
    if (audio.beeps.isEmpty())
        return text;
    return text
        + row(QStringLiteral("audio behind frame, ms"),
            QStringLiteral("mean %1, worst %2, drift %3 a minute")
                .arg(fixed(audio.meanMs, 2), fixed(audio.worstMs, 2), fixed(audio.driftMsPerMinute, 2)));
}

QString markerRows(const TruthMarker& marker)
{
    const QString label = QStringLiteral("marker at ") + pointText(marker.expected);
    if (marker.samples.isEmpty())
        return row(label, QStringLiteral("never seen"));
    return row(label,
        QStringLiteral("error px median %1, worst %2; seen %3 to %4 ms in %5 frames, radius %6 to %7 px")
            .arg(fixed(marker.medianErrorPx, 2), fixed(marker.worstErrorPx, 2), fixed(marker.firstSeenPtsMs, 0),
                fixed(marker.lastSeenPtsMs, 0))
            .arg(marker.samples.size())
            .arg(fixed(marker.samples.first().radius), fixed(marker.samples.last().radius)));
}

QJsonArray pointJson(const QPointF& point)
{
    return {point.x(), point.y()};
}

QJsonArray channelsJson(const auto& values)
{
    QJsonArray array;
    for (const auto value : values)
        array.append(value);
    return array;
}

QJsonObject markerJson(const TruthMarker& marker)
{
    QJsonArray samples;
    for (const TruthMarker::Sample& sample : marker.samples) {
        samples.append(QJsonObject{{QStringLiteral("ptsMs"), sample.ptsMs},
            {QStringLiteral("radiusPx"), sample.radius}, {QStringLiteral("errorPx"), sample.errorPx}});
    }
    return {{QStringLiteral("expected"), pointJson(marker.expected)},
        {QStringLiteral("firstSeenPtsMs"), marker.firstSeenPtsMs},
        {QStringLiteral("lastSeenPtsMs"), marker.lastSeenPtsMs},
        {QStringLiteral("medianErrorPx"), marker.medianErrorPx},
        {QStringLiteral("worstErrorPx"), marker.worstErrorPx}, {QStringLiteral("samples"), samples}};
}

QJsonObject audioJson(const TruthAudio& audio)
{
    QJsonArray beeps;
    for (const TruthBeep& beep : audio.beeps)
        beeps.append(
            QJsonObject{{QStringLiteral("fileMs"), beep.fileMs}, {QStringLiteral("offsetMs"), beep.offsetMs}});
    return {{QStringLiteral("flashes"), audio.flashes}, {QStringLiteral("missedBeeps"), audio.missedBeeps},
        {QStringLiteral("strayBeeps"), audio.strayBeeps}, {QStringLiteral("meanMs"), audio.meanMs},
        {QStringLiteral("worstMs"), audio.worstMs}, {QStringLiteral("driftMsPerMinute"), audio.driftMsPerMinute},
        {QStringLiteral("beeps"), beeps}};
}

}

QString truthReportTable(const TruthReport& report)
{
    const QRectF& where = report.whereTheWindowIs;
    QString text;
    if (!report.error.isEmpty())
        text += row(QStringLiteral("ERROR"), report.error);
    if (report.framesInFile == 0)
        return text + row(QStringLiteral("frames in the file"), QStringLiteral("0"));
    text += row(QStringLiteral("canvas"),
        QStringLiteral("%1 x %2, window %3 x %4 at %5")
            .arg(report.canvas.width())
            .arg(report.canvas.height())
            .arg(fixed(where.width()), fixed(where.height()), pointText(where.topLeft())));
    text += row(QStringLiteral("frames in the file"), QString::number(report.framesInFile));
    text += row(QStringLiteral("barcodes read"), QString::number(report.framesDecoded));
    text += row(QStringLiteral("frames lost"),
        QStringLiteral("%1 (%2 missed slots, %3 repeated)")
            .arg(report.framesLost())
            .arg(report.missedSlots)
            .arg(report.repeatedFrames));
    text += row(QStringLiteral("window repainted every"), fixed(report.repaintIntervalMs) + QStringLiteral(" ms"));
    text += timingRows(report);
    text += audioRows(report);
    text += row(QStringLiteral("colours"),
        report.coloursTagged ? QStringLiteral("tagged") : QStringLiteral("NOT TAGGED: measured on a guess"));
    for (const TruthPatch& patch : report.patches) {
        text += row(QStringLiteral("  patch #%1").arg(patch.expected & 0xffffff, 6, 16, QLatin1Char('0')),
            QStringLiteral("error R G B mean %1, max %2").arg(channels(patch.mean, 1), channels(patch.max, 0)));
    }
    if (report.pointer) {
        text += row(QStringLiteral("pointer at ") + pointText(report.pointer->expected),
            report.pointer->framesSeen == 0
                ? QStringLiteral("never seen")
                : QStringLiteral("error px median %1, worst %2 in %3 frames")
                      .arg(fixed(report.pointer->medianErrorPx, 2), fixed(report.pointer->worstErrorPx, 2))
                      .arg(report.pointer->framesSeen));
    }
    for (const TruthMarker& marker : report.markers)
        text += markerRows(marker);
    return text;
}

QByteArray truthReportJson(const TruthReport& report)
{
    const QRectF& where = report.whereTheWindowIs;
    QJsonObject json{
        {QStringLiteral("error"), report.error},
        {QStringLiteral("canvas"), QJsonArray{report.canvas.width(), report.canvas.height()}},
        {QStringLiteral("window"), QJsonArray{where.x(), where.y(), where.width(), where.height()}},
        {QStringLiteral("coloursTagged"), report.coloursTagged},
        {QStringLiteral("framesInFile"), report.framesInFile},
        {QStringLiteral("framesDecoded"), report.framesDecoded},
        {QStringLiteral("framesLost"), report.framesLost()},
        {QStringLiteral("missedSlots"), report.missedSlots},
        {QStringLiteral("repeatedFrames"), report.repeatedFrames},
        {QStringLiteral("animated"), report.animated},
        {QStringLiteral("repaintIntervalMs"), report.repaintIntervalMs},
        {QStringLiteral("timing"), QJsonValue()},
        {QStringLiteral("pointer"), QJsonValue()},
        {QStringLiteral("videoDurationMs"),
            report.videoDurationMs ? QJsonValue(*report.videoDurationMs) : QJsonValue()},
        {QStringLiteral("audioDurationMs"),
            report.audioDurationMs ? QJsonValue(*report.audioDurationMs) : QJsonValue()},
        {QStringLiteral("audio"), report.audio ? QJsonValue(audioJson(*report.audio)) : QJsonValue()},
    };
    if (report.timing) {
        json[QStringLiteral("timing")] = QJsonObject{{QStringLiteral("medianMs"), report.timing->medianMs},
            {QStringLiteral("p95Ms"), report.timing->p95Ms}, {QStringLiteral("worstMs"), report.timing->worstMs},
            {QStringLiteral("driftMsPerMinute"), report.timing->driftMsPerMinute}};
    }
    if (report.pointer) {
        json[QStringLiteral("pointer")]
            = QJsonObject{{QStringLiteral("expected"), pointJson(report.pointer->expected)},
                {QStringLiteral("framesSeen"), report.pointer->framesSeen},
                {QStringLiteral("medianErrorPx"), report.pointer->medianErrorPx},
                {QStringLiteral("worstErrorPx"), report.pointer->worstErrorPx}};
    }
    QJsonArray patches;
    for (const TruthPatch& patch : report.patches) {
        patches.append(QJsonObject{
            {QStringLiteral("rgb"), QJsonArray{qRed(patch.expected), qGreen(patch.expected), qBlue(patch.expected)}},
            {QStringLiteral("meanError"), channelsJson(patch.mean)},
            {QStringLiteral("maxError"), channelsJson(patch.max)}});
    }
    json[QStringLiteral("patches")] = patches;
    QJsonArray markers;
    for (const TruthMarker& marker : report.markers)
        markers.append(markerJson(marker));
    json[QStringLiteral("markers")] = markers;
    return QJsonDocument(json).toJson();
}
