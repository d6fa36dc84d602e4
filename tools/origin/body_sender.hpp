#pragma once

#include <functional>
#include <string_view>

#include "host/event.hpp"
#include "origin/http_message.hpp"

namespace tidalcrest::origin {

/// What is to happen to the connection after a body.
enum class AfterBody { CONTINUE, CLOSE, RESET };

/// Hands the bytes of a body to `write` as its transmission says: with its pauses, its wrong bytes and its
/// early end. `write` gives false when the client is gone. Waits end when `stopping` is set.
AfterBody send_body(const HttpResponse& response, const std::function<bool(std::string_view)>& write,
                    const sync::Event& stopping);

}  // namespace tidalcrest::origin
