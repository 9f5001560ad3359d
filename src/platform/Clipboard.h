#pragma once
// The clipboard's text comes from a provider. The default one on Linux asks wl-paste (Wayland) or xclip
// (X11) and fails with a clear message when neither can be run.

#include <string>

namespace kv {

class IKvClipboard {
public:
    virtual ~IKvClipboard() = default;
    /// The clipboard's text (UTF-8); raises kv::Exception when there is no clipboard to read.
    virtual std::string GetText() = 0;
};

/// The provider in use; never null.
IKvClipboard& Clipboard();
/// Installs a provider (nullptr restores the default); the caller keeps ownership.
void SetClipboard(IKvClipboard* clipboard);

} // namespace kv
