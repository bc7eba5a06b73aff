#include "opal-report/Page.h"

#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <random>

namespace opal::report {
namespace {

/// Only scripts and styles with this word run. A recording's author cannot know it.
std::string Nonce() {
    std::random_device random;
    std::array<char, 33> text{};
    std::snprintf(text.data(), text.size(), "%08x%08x%08x%08x", random(), random(), random(),
                  random());
    return text.data();
}

/// JSON in plain ASCII in which no character means anything to HTML.
std::string InertJson(const nlohmann::json& data) {
    const std::string json = data.dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
    std::string inert;
    inert.reserve(json.size());
    for (const char c : json) {
        if (c == '<')
            inert += "\\u003c";
        else if (c == '>')
            inert += "\\u003e";
        else if (c == '&')
            inert += "\\u0026";
        else
            inert += c;
    }
    return inert;
}

const char* const kLicence = R"(<!--
This page contains D3 (https://d3js.org), Copyright 2010-2017 Mike Bostock. All rights reserved.

Redistribution and use in source and binary forms, with or without modification, are permitted
provided that the following conditions are met:
* Redistributions of source code must retain the above copyright notice, this list of conditions and
  the following disclaimer.
* Redistributions in binary form must reproduce the above copyright notice, this list of conditions
  and the following disclaimer in the documentation and/or other materials provided with the
  distribution.
* Neither the name of the author nor the names of contributors may be used to endorse or promote
  products derived from this software without specific prior written permission.

THIS SOFTWARE IS PROVIDED BY THE COPYRIGHT HOLDERS AND CONTRIBUTORS "AS IS" AND ANY EXPRESS OR
IMPLIED WARRANTIES, INCLUDING, BUT NOT LIMITED TO, THE IMPLIED WARRANTIES OF MERCHANTABILITY AND
FITNESS FOR A PARTICULAR PURPOSE ARE DISCLAIMED. IN NO EVENT SHALL THE COPYRIGHT OWNER OR
CONTRIBUTORS BE LIABLE FOR ANY DIRECT, INDIRECT, INCIDENTAL, SPECIAL, EXEMPLARY, OR CONSEQUENTIAL
DAMAGES (INCLUDING, BUT NOT LIMITED TO, PROCUREMENT OF SUBSTITUTE GOODS OR SERVICES; LOSS OF USE,
DATA, OR PROFITS; OR BUSINESS INTERRUPTION) HOWEVER CAUSED AND ON ANY THEORY OF LIABILITY, WHETHER IN
CONTRACT, STRICT LIABILITY, OR TORT (INCLUDING NEGLIGENCE OR OTHERWISE) ARISING IN ANY WAY OUT OF THE
USE OF THIS SOFTWARE, EVEN IF ADVISED OF THE POSSIBILITY OF SUCH DAMAGE.
-->
)";

}  // namespace

std::string MakePage(const nlohmann::json& data) {
    const PageParts& parts = GetPageParts();
    const std::string nonce = Nonce();
    const auto element = [&nonce](const char* tag, std::string_view content) {
        return "<" + std::string(tag) + " nonce=\"" + nonce + "\">\n" + std::string(content) +
               "\n</" + tag + ">\n";
    };
    return "<!DOCTYPE html>\n" + std::string(kLicence) +
           "<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
           "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; script-src "
           "'nonce-" +
           nonce + "'; style-src 'nonce-" + nonce +
           "'; img-src data:; connect-src 'self'; base-uri 'none'; form-action 'none'\">\n"
           "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
           "<meta name=\"color-scheme\" content=\"light dark\">\n"
           "<link rel=\"icon\" href=\"data:,\">\n<title>Session report</title>\n" +
           element("style", parts.style) +
           "</head>\n<body>\n<main id=\"report\"><noscript>This page draws with "
           "JavaScript.</noscript></main>\n<script type=\"application/json\" id=\"data\">" +
           InertJson(data) + "</script>\n" + element("script", parts.d3) +
           element("script", parts.script) + "</body>\n</html>\n";
}

}  // namespace opal::report
