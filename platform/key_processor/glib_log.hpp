#pragma once

// GLib's log handlers, reached through the loader: this code does not link GLib, which the process
// has only when a TCTI that uses it is loaded (tpm2-abrmd's).
namespace keyloft::platform::key_processor {

class GlibLog {
  public:
    // GLib's, loaded first; nothing when it is not installed.
    static const GlibLog* load();

    // While one lives, what is logged in GLib's default domain goes to the system log rather than
    // stderr: tpm2-abrmd's TCTI logs there, and warns when the daemon goes away mid-command,
    // where the user is to read our one error line only. Messages other threads log there
    // meanwhile go to the system log too. Does nothing without GLib.
    class ToSystemLog {
      public:
        explicit ToSystemLog(const GlibLog* glib);
        ~ToSystemLog();
        ToSystemLog(const ToSystemLog&) = delete;
        ToSystemLog& operator=(const ToSystemLog&) = delete;

      private:
        const GlibLog* glib_;
        unsigned handler_ = 0;
    };

  private:
    using Handler = void (*)(const char* domain, int level, const char* message, void* data);
    using SetHandler = unsigned (*)(const char* domain, int levels, Handler handler, void* data);
    using RemoveHandler = void (*)(const char* domain, unsigned handler);

    GlibLog(SetHandler set, RemoveHandler remove) : set_(set), remove_(remove) {}

    SetHandler set_;
    RemoveHandler remove_;
};

}  // namespace keyloft::platform::key_processor
