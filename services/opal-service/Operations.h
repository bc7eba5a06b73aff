#pragma once

#include <map>
#include <string>

#include "opal-service/Simulator.h"

namespace opal::service {

/// What an answer is made of.
struct ServiceFacts {
    const SimulatorSettings& settings;
    const Failure* pFailure = nullptr;  ///< of a kind that a service itself tells; else null
    std::string url;                    ///< of this server, without a slash at the end
    std::map<std::string, int32_t>* resumeMs = nullptr;
    int* renewals = nullptr;
};

/// Lets the generated stub read a SOAP request and write the answer. `call` tells what was asked.
HttpReply AnswerSoap(const std::string& body, const ServiceFacts& facts, Received& call);

}  // namespace opal::service
