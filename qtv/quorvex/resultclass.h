#pragma once

#include "qutils/quorvexapi.h"

#include <QString>

// The probability classes an analysed photo is sorted into.
enum class EResultClass
{
    VeryHigh,
    High,
    Medium,
    Low,
    NotFound,
    NotProcessed,
    NotCompared,
};

// Decided once per result: a photo never compared with the fingerprint is
// "not compared"; a failed status or no match is "not found"; a match by its
// probability (>= 0.999, >= 0.995, >= 0.99, below).
EResultClass classifyResult(const qutils::CQuorvexAPI::SAnalysisResult& result);

// "very high", "high", "medium", "low", "not found", "not processed", "not compared".
QString resultClassName(EResultClass resultClass);

// The photo state of a class in the image model (16, 32, 64, 128, 256, 512; 8 waiting).
int resultClassState(EResultClass resultClass);

// The photo was read but never compared with the fingerprint: its size fits it
// in no way tried, or its EXIF camera differs and the user chose to skip it.
// Neither is evidence that another camera took it, so it is never "no match".
bool isNotCompared(const qutils::CQuorvexAPI::SAnalysisResult& result);

// "Not compared: Size is incompatible with fingerprint" or
// "Not compared: Different camera type".
QString notComparedTitle(const qutils::CQuorvexAPI::SAnalysisResult& result);
// The title with the reason in brackets, when there is one.
QString notComparedText(const qutils::CQuorvexAPI::SAnalysisResult& result);

// "0.80": the scale to show beside a result; empty for a photo of the
// fingerprint's own size.
QString scaleText(const qutils::CQuorvexAPI::SAnalysisResult& result);

// "%1h %2m %3s" or "%1d %2h %3m %4s" with two-digit seconds; "unknown" when negative.
QString remainingTimeText(qint64 milliseconds);
