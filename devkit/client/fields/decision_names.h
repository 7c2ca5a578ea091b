// The verdicts, as a person writes them.
#pragma once

#include "client/fields/fields.h"
#include "route/decision.h"

namespace client {

inline constexpr NamedValue kDecisionNames[] = {
    {"DECISION_ACCE", moru_vyr::lsp::DECISION_ACCE},
    {"DECISION_DIRECT", moru_vyr::lsp::DECISION_DIRECT},
    {"DECISION_NOT_ACCE_SAME_ISP", moru_vyr::lsp::DECISION_NOT_ACCE_SAME_ISP},
    {"DECISION_NOT_ACCE", moru_vyr::lsp::DECISION_NOT_ACCE},
    {"DECISION_FORCE_ACCE_AUTO", moru_vyr::lsp::DECISION_FORCE_ACCE_AUTO},
    {"DECISION_OVER_MAX_BOTH", moru_vyr::lsp::DECISION_OVER_MAX_BOTH},
    {"DECISION_OVER_MAX_DELAY", moru_vyr::lsp::DECISION_OVER_MAX_DELAY},
    {"DECISION_OVER_MAX_LOST", moru_vyr::lsp::DECISION_OVER_MAX_LOST},
    {"DECISION_FORCE_ACCE_MANUAL", moru_vyr::lsp::DECISION_FORCE_ACCE_MANUAL},
};

}  // namespace client
