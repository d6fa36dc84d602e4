#pragma once

#include <functional>
#include <string>

#include "tidalcrest/sync/sync_manager.hpp"

namespace tidalcrest::sync {

/// The checks of a manager's arguments, in the order in which a constructor makes them, before anything is
/// built. Gives the token supplier.
std::function<std::string()> checked_token_supplier(const SyncOptions& options);
void check_server_url(const std::string& server_url);
/// `FileNotFoundError` "data_dir does not exist: ..." or `ValueError` "data_dir is not a safe directory:
/// ...".
void check_data_dir(const std::string& data_dir);
/// `ValueError` for nan: no wait of that length ends, and none begins.
void check_poll_interval(double poll_interval_s);

}  // namespace tidalcrest::sync
