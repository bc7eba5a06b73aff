#include "opal-simulate/Link.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace opal::simulate {
namespace {

/// Below these a wait or a rest of bytes is over; keeps floating point from dribbling.
constexpr double kTinyMs = 1e-6;
constexpr double kTinyBytes = 1e-3;
constexpr double kMinPieceMs = 0.01;
constexpr double kMaxPieceMs = 86400000.0;
constexpr double kMaxKbps = 1e9;

Trace::Piece FromJson(const nlohmann::json& in) {
    Trace::Piece piece;
    piece.durationMs = in.at("duration_ms").get<double>();
    piece.bytesPerMs = in.at("bandwidth_kbps").get<double>() / 8.0;
    piece.latencyMs = in.value("latency_ms", 0.0);
    const bool sane = piece.durationMs >= kMinPieceMs && piece.durationMs <= kMaxPieceMs &&
                      piece.bytesPerMs >= 0.0 && piece.bytesPerMs <= kMaxKbps &&
                      piece.latencyMs >= 0.0 && piece.latencyMs <= kMaxPieceMs;
    if (!sane)
        throw std::runtime_error("a piece of the trace is out of range");
    return piece;
}

}  // namespace

Trace ReadTrace(const std::string& path) {
    std::ifstream file(path);
    if (!file)
        throw std::runtime_error(path + ": cannot be opened");
    Trace trace;
    trace.name = std::filesystem::path(path).filename().string();
    double bytesPerMs = 0.0;
    try {
        for (const nlohmann::json& piece : nlohmann::json::parse(file)) {
            trace.pieces.push_back(FromJson(piece));
            bytesPerMs = std::max(bytesPerMs, trace.pieces.back().bytesPerMs);
        }
    } catch (const std::exception& error) {
        throw std::runtime_error(path + ": not a bandwidth trace: " + error.what());
    }
    if (bytesPerMs <= 0.0)
        throw std::runtime_error(path + ": not a bandwidth trace: it never carries anything");
    return trace;
}

Link::Link(const Trace& trace) : m_trace(trace) {
    EnterPieceOfTrace();
}

void Link::EnterPieceOfTrace() {
    m_pieceLeftMs = m_trace.pieces[m_piece].durationMs;
}

void Link::Start(Transfer& transfer, double bytes) {
    transfer.waitMs = transfer.latencyMs = m_trace.pieces[m_piece].latencyMs;
    transfer.bytesLeft = transfer.bytes = bytes;
    transfer.startMs = m_nowMs;
    transfer.active = true;
    if (!transfer.IsDone())  // a question without a body, on a link without latency
        m_running.push_back(&transfer);
}

void Link::Cancel(Transfer& transfer) {
    m_running.remove(&transfer);
    transfer.active = false;
}

double Link::Advance(double ms) {
    double passed = 0.0;
    while (passed < ms) {
        double step = std::min(ms - passed, m_pieceLeftMs);
        const auto flowing =
            std::count_if(m_running.begin(), m_running.end(),
                          [](const Transfer* transfer) { return transfer->waitMs <= 0.0; });
        const double share =
            flowing == 0 ? 0.0 : m_trace.pieces[m_piece].bytesPerMs / static_cast<double>(flowing);
        for (const Transfer* transfer : m_running) {
            if (transfer->waitMs > 0.0)
                step = std::min(step, transfer->waitMs);
            else if (share > 0.0)
                step = std::min(step, transfer->bytesLeft / share);
        }
        bool done = false;
        for (auto it = m_running.begin(); it != m_running.end();) {
            Transfer& transfer = **it;
            if (transfer.waitMs > 0.0) {
                transfer.waitMs -= step;
                if (transfer.waitMs < kTinyMs)
                    transfer.waitMs = 0.0;
            } else {
                transfer.bytesLeft -= share * step;
                if (transfer.bytesLeft < kTinyBytes)
                    transfer.bytesLeft = 0.0;
            }
            done = done || transfer.IsDone();
            it = transfer.IsDone() ? m_running.erase(it) : std::next(it);
        }
        passed += step;
        m_nowMs += step;
        m_pieceLeftMs -= step;
        if (m_pieceLeftMs < kTinyMs) {
            m_piece = (m_piece + 1) % m_trace.pieces.size();
            EnterPieceOfTrace();
        }
        if (done)
            break;
    }
    return passed;
}

}  // namespace opal::simulate
