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
};

// Decided once per result: a failed status or no match is "not found"; a
// match by its probability (>= 0.999, >= 0.995, >= 0.99, below).
EResultClass classifyResult(const qutils::CQuorvexAPI::SAnalysisResult& result);

// "very high", "high", "medium", "low", "not found", "not processed".
QString resultClassName(EResultClass resultClass);

// The photo state of a class in the image model (16, 32, 64, 128, 256; 8 waiting).
int resultClassState(EResultClass resultClass);

// "%1h %2m %3s" or "%1d %2h %3m %4s" with two-digit seconds; "unknown" when negative.
QString remainingTimeText(qint64 milliseconds);
