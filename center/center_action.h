// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

class ZAV_SHM_CENTER;

/// What the center does upon one command: an object per request, made by the factory.
///
/// Owner    whoever called the factory deletes it; it borrows the center.
/// Threads  run on the center's receive thread, one at a time.
class SHM_CENTER_ACTION {
public:
    explicit SHM_CENTER_ACTION(ZAV_SHM_CENTER* of) : center(of) {}
    SHM_CENTER_ACTION(const SHM_CENTER_ACTION&) = delete;
    SHM_CENTER_ACTION& operator=(const SHM_CENTER_ACTION&) = delete;
    virtual ~SHM_CENTER_ACTION() = default;

    /// @return 0
    virtual int execute(const std::string& text) = 0;

protected:
    ZAV_SHM_CENTER* center;
};

/// "register"
class SHM_CENTER_CLIENT_REGISTER : public SHM_CENTER_ACTION {
public:
    using SHM_CENTER_ACTION::SHM_CENTER_ACTION;
    int execute(const std::string& text) override;
};

/// "deregister"
class SHM_CENTER_CLIENT_DEREGISTER : public SHM_CENTER_ACTION {
public:
    using SHM_CENTER_ACTION::SHM_CENTER_ACTION;
    int execute(const std::string& text) override;
};

/// "pair_src"
class SHM_CENTER_CLIENT_PAIR : public SHM_CENTER_ACTION {
public:
    using SHM_CENTER_ACTION::SHM_CENTER_ACTION;
    int execute(const std::string& text) override;
};

/// "query_shm"
class SHM_CENTER_QUERY_SHM : public SHM_CENTER_ACTION {
public:
    using SHM_CENTER_ACTION::SHM_CENTER_ACTION;
    int execute(const std::string& text) override;
};

/// "kick_idle"
class SHM_CENTER_KICK_IDLE : public SHM_CENTER_ACTION {
public:
    using SHM_CENTER_ACTION::SHM_CENTER_ACTION;
    int execute(const std::string& text) override;
};

/// "query_status"
class SHM_CENTER_QUERY_STATUS : public SHM_CENTER_ACTION {
public:
    using SHM_CENTER_ACTION::SHM_CENTER_ACTION;
    int execute(const std::string& text) override;
};

/// The action for the request's "command", which the caller deletes; null for a text that names
/// no known one.
SHM_CENTER_ACTION* Factory_Shm_Center_Action(const std::string& text, ZAV_SHM_CENTER* center);
