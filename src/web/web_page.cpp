#include "web/web_page.hpp"

#include "core/playback/flash_analyzer.hpp"
#include "core/rendering/web_sandbox.hpp"
#include "engine/web/beneath_folder.hpp"
#include "engine/web/process_tree.hpp"

#include <fmt/format.h>
#include <gdk/gdkwayland.h>
#include <gdk/gdkx.h>
#include <gio/gunixinputstream.h>
#include <glib-unix.h>
#include <gtk-layer-shell/gtk-layer-shell.h>
#include <gtk/gtkx.h>
#include <webkit2/webkit2.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <span>

#include <unistd.h>

namespace korvalen::web {

namespace {

// Runs in a world of its own, which the page cannot see or imitate: it passes on what the
// content security policy refused, and the page's uncaught errors.
constexpr const char* watchScript = R"js(
const framesSaid = new Set();
addEventListener('securitypolicyviolation', (e) => {
  // A frame's report names only its origin: its element has the whole address.
  let address = String(e.blockedURI || e.violatedDirective);
  if (/^(frame|child)-src/.test(e.effectiveDirective)) {
    for (const frame of document.querySelectorAll('iframe[src], frame[src]')) {
      if (frame.src.startsWith(address) && !framesSaid.has(frame.src)) {
        address = frame.src;
        framesSaid.add(address);
        break;
      }
    }
  }
  window.webkit.messageHandlers.refused.postMessage(address);
}, true);
addEventListener('error', (e) => {
  if (e instanceof ErrorEvent) {
    window.webkit.messageHandlers.pageError.postMessage(
        String(e.message) + ' (' + String(e.filename).split('/').pop() + ':' + e.lineno + ')');
  }
}, true);
)js";
constexpr const char* watchWorld = "korvalen";

// In the page's own world, before its scripts: animation frames come at most `fpsCap` times
// a second, as the wallpaper's videos do, since a page drawing every frame the screen offers
// is the costliest thing a wallpaper can do. Frames between are still asked for but run
// nothing, so nothing is drawn. "FIRST_CAP" becomes the first cap; the wallpaper changes it
// later.
constexpr const char* frameCapScript = R"js(
(() => {
  const ask = window.requestAnimationFrame.bind(window);
  let interval = FIRST_CAP > 0 ? 1000 / FIRST_CAP : 0;
  let last = -Infinity;
  let asked = 0;
  let next = 1;
  const waiting = new Map();
  const frame = (time) => {
    asked = 0;
    if (interval > 0 && time - last < interval - 2) {
      asked = ask(frame);
      return;
    }
    last = time;
    const due = Array.from(waiting.values());
    waiting.clear();
    for (const callback of due) {
      try {
        callback(time);
      } catch (error) {
        setTimeout(() => { throw error; });
      }
    }
  };
  window.requestAnimationFrame = (callback) => {
    const id = next++;
    waiting.set(id, callback);
    if (asked === 0) {
      asked = ask(frame);
    }
    return id;
  };
  window.cancelAnimationFrame = (id) => { waiting.delete(id); };
  Object.defineProperty(window, Symbol.for('korvalen.fpsCap'), {
    value: (fps) => { interval = fps > 0 ? 1000 / fps : 0; },
  });
})();
)js";
// Uncaught errors said per page, so a page that fails every frame does not fill the log.
constexpr int errorsSaid = 3;
constexpr guint loadLimitSeconds = 30;
// How long a hidden page has to hear it is hidden before its processes stop.
constexpr guint hideGraceMs = 250;
// A running page is asked for a sign of life this often; one that gives none for
// `hangSeconds` is stuck in a script. WebKit itself asks only when input comes, and a
// wallpaper gets none.
constexpr guint lifeCheckSeconds = 2;
constexpr double hangSeconds = 6;

double monotonicSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

std::string textOf(WebKitJavascriptResult* result) {
  JSCValue* value = webkit_javascript_result_get_js_value(result);
  char* text = jsc_value_to_string(value);
  std::string out = text != nullptr ? text : "";
  g_free(text);
  return out;
}

class Page {
 public:
  Page(const PageOptions& options, Say say) : options_(options), say_(std::move(say)) {}
  Page(const Page&) = delete;
  Page& operator=(const Page&) = delete;
  ~Page() {
    if (view_ != nullptr && window_ == nullptr) {
      g_object_unref(g_object_ref_sink(view_));
    }
    if (window_ != nullptr) {
      gtk_widget_destroy(window_);
    }
    if (context_ != nullptr) {
      g_object_unref(context_);
    }
    if (heldPicture_ != nullptr) {
      cairo_surface_destroy(heldPicture_);
    }
    if (lifeTimer_ != 0) {
      g_source_remove(lifeTimer_);
    }
  }

  // The view, ready to load; `quit` ends the program's loop with the code given.
  void make(std::function<void(int)> quit) {
    quit_ = std::move(quit);
    const auto data = (options_.storage / "data").string();
    const auto cache = (options_.storage / "cache").string();
    WebKitWebsiteDataManager* manager = webkit_website_data_manager_new("base-data-directory", data.c_str(),
                                                                        "base-cache-directory", cache.c_str(), nullptr);
    context_ = WEBKIT_WEB_CONTEXT(g_object_new(WEBKIT_TYPE_WEB_CONTEXT, "website-data-manager", manager, nullptr));
    g_object_unref(manager);
    webkit_web_context_set_sandbox_enabled(context_, TRUE);
    webkit_web_context_set_cache_model(context_, WEBKIT_CACHE_MODEL_DOCUMENT_VIEWER);
    // A remote page's cookies last like its local storage (WebKit keeps them in memory
    // otherwise); pages of our own scheme have none.
    const auto cookies = (options_.storage / "data" / "cookies.sqlite").string();
    webkit_cookie_manager_set_persistent_storage(webkit_web_context_get_cookie_manager(context_), cookies.c_str(),
                                                 WEBKIT_COOKIE_PERSISTENT_STORAGE_SQLITE);
    const std::string scheme(WebSandbox::scheme);
    webkit_web_context_register_uri_scheme(context_, scheme.c_str(), &Page::serve, this, nullptr);
    WebKitSecurityManager* security = webkit_web_context_get_security_manager(context_);
    webkit_security_manager_register_uri_scheme_as_secure(security, scheme.c_str());
    webkit_security_manager_register_uri_scheme_as_cors_enabled(security, scheme.c_str());
    g_signal_connect(context_, "initialize-notification-permissions", G_CALLBACK(+[](WebKitWebContext*) {}), nullptr);

    WebKitUserContentManager* content = webkit_user_content_manager_new();
    WebKitUserScript* script =
        webkit_user_script_new_for_world(watchScript, WEBKIT_USER_CONTENT_INJECT_ALL_FRAMES,
                                         WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_START, watchWorld, nullptr, nullptr);
    webkit_user_content_manager_add_script(content, script);
    webkit_user_script_unref(script);
    if (options_.fpsCap > 0) {
      std::string capped = frameCapScript;
      for (auto at = capped.find("FIRST_CAP"); at != std::string::npos; at = capped.find("FIRST_CAP", at)) {
        capped.replace(at, std::string_view("FIRST_CAP").size(), std::to_string(options_.fpsCap));
      }
      WebKitUserScript* cap = webkit_user_script_new(capped.c_str(), WEBKIT_USER_CONTENT_INJECT_ALL_FRAMES,
                                                     WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_START, nullptr, nullptr);
      webkit_user_content_manager_add_script(content, cap);
      webkit_user_script_unref(cap);
    }
    for (const char* name : {"refused", "pageError"}) {
      webkit_user_content_manager_register_script_message_handler_in_world(content, name, watchWorld);
    }
    g_signal_connect(content, "script-message-received::refused", G_CALLBACK(&Page::onRefused), this);
    g_signal_connect(content, "script-message-received::pageError", G_CALLBACK(&Page::onPageError), this);

    const auto policy = WebSandbox::contentSecurityPolicy(options_.item);
    view_ = WEBKIT_WEB_VIEW(g_object_new(WEBKIT_TYPE_WEB_VIEW, "web-context", context_, "user-content-manager", content,
                                         "default-content-security-policy",
                                         options_.allowNetwork ? nullptr : policy.c_str(), nullptr));
    g_object_unref(content);
    WebKitSettings* settings = webkit_web_view_get_settings(view_);
    webkit_settings_set_allow_file_access_from_file_urls(settings, FALSE);
    webkit_settings_set_allow_universal_access_from_file_urls(settings, FALSE);
    webkit_settings_set_javascript_can_open_windows_automatically(settings, FALSE);
    webkit_settings_set_enable_developer_extras(settings, FALSE);
    webkit_settings_set_enable_webrtc(settings, FALSE);
    webkit_settings_set_enable_media_stream(settings, FALSE);
    webkit_settings_set_enable_page_cache(settings, FALSE);
    webkit_settings_set_media_playback_requires_user_gesture(settings, FALSE);
    g_signal_connect(view_, "decide-policy", G_CALLBACK(&Page::onDecide), this);
    g_signal_connect(view_, "permission-request", G_CALLBACK(&Page::onPermission), this);
    g_signal_connect(view_, "web-process-terminated", G_CALLBACK(&Page::onTerminated), this);
    g_signal_connect(view_, "load-failed", G_CALLBACK(&Page::onLoadFailed), this);
    g_signal_connect(view_, "load-changed", G_CALLBACK(&Page::onLoadChanged), this);
    g_signal_connect(view_, "notify::is-web-process-responsive", G_CALLBACK(&Page::onResponsive), this);
    gtk_widget_set_size_request(GTK_WIDGET(view_), options_.width, options_.height);
  }

  void load() {
    const auto address =
        options_.url && options_.allowNetwork ? *options_.url : WebSandbox::pageAddress(options_.item, options_.page);
    webkit_web_view_load_uri(view_, address.c_str());
    loadTimer_ = g_timeout_add_seconds(loadLimitSeconds, &Page::onLoadTimeout, this);
  }

  void setWindow(GtkWidget* window) {
    window_ = window;
    // While paused the window shows a picture of the page, so the page itself can be hidden:
    // a hidden page asks for no frames, and its processes can stop.
    stack_ = gtk_stack_new();
    held_ = gtk_drawing_area_new();
    g_signal_connect(held_, "draw", G_CALLBACK(&Page::drawHeld), this);
    gtk_stack_add_named(GTK_STACK(stack_), GTK_WIDGET(view_), "page");
    gtk_stack_add_named(GTK_STACK(stack_), held_, "held");
    gtk_container_add(GTK_CONTAINER(window_), stack_);
  }
  [[nodiscard]] WebKitWebView* view() const { return view_; }

  // The page's processes stop where they are, and go on from there.
  void setPaused(bool paused) {
    if (paused == paused_) {
      return;
    }
    paused_ = paused;
    ++pauseTurn_;
    // A paused page is not asked for signs of life: nothing here wakes until it resumes.
    if (lifeTimer_ != 0) {
      g_source_remove(lifeTimer_);
      lifeTimer_ = 0;
    }
    askedSince_.reset();
    if (!paused) {
      engine::signalEach(engine::descendantsOf(::getpid()), SIGCONT);
      gtk_stack_set_visible_child_name(GTK_STACK(stack_), "page");
      if (watching_) {
        lifeTimer_ = g_timeout_add_seconds(lifeCheckSeconds, &Page::checkLife, this);
      }
      return;
    }
    webkit_web_view_get_snapshot(
        view_, WEBKIT_SNAPSHOT_REGION_VISIBLE, WEBKIT_SNAPSHOT_OPTIONS_NONE, nullptr,
        [](GObject* source, GAsyncResult* result, gpointer data) {
          auto& self = *static_cast<Page*>(data);
          cairo_surface_t* picture = webkit_web_view_get_snapshot_finish(WEBKIT_WEB_VIEW(source), result, nullptr);
          if (self.heldPicture_ != nullptr) {
            cairo_surface_destroy(self.heldPicture_);
          }
          self.heldPicture_ = picture;
          self.hold(self.pauseTurn_);
        },
        this);
  }
  void setMuted(bool muted) { webkit_web_view_set_is_muted(view_, muted ? TRUE : FALSE); }
  void setFpsCap(int fps) {
    if (options_.fpsCap <= 0 || fps == options_.fpsCap) {
      return;  // a page shown without a cap has nothing to change
    }
    options_.fpsCap = fps;
    const auto call = fmt::format("window[Symbol.for('korvalen.fpsCap')]?.({})", fps);
    webkit_web_view_evaluate_javascript(view_, call.c_str(), -1, nullptr, nullptr, nullptr, nullptr, nullptr);
  }

  std::function<void()> loaded;  // once, when the page first finished loading

  // Shown pages only: an off-screen still has its own time limit.
  void watchForHangs() {
    watching_ = true;
    if (!paused_ && lifeTimer_ == 0) {
      lifeTimer_ = g_timeout_add_seconds(lifeCheckSeconds, &Page::checkLife, this);
    }
  }

  void end(int code, const std::string& why) {
    if (!why.empty()) {
      say_(code == 0 ? why : "ending: " + why);  // the last word, which the wallpaper says for it
    }
    if (paused_) {
      setPaused(false);  // stopped processes would outlive us
    }
    quit_(code);
  }

 private:
  // Shows the picture, hides the page, and once the page has heard it is hidden (its last
  // frame requests answered), stops its processes.
  void hold(unsigned turn) {
    if (!paused_ || turn != pauseTurn_) {
      return;
    }
    gtk_stack_set_visible_child_name(GTK_STACK(stack_), "held");
    g_timeout_add(
        hideGraceMs,
        +[](gpointer data) -> gboolean {
          auto& self = *static_cast<Page*>(data);
          if (self.paused_) {
            engine::signalEach(engine::descendantsOf(::getpid()), SIGSTOP);
          }
          return G_SOURCE_REMOVE;
        },
        this);
  }

  static gboolean checkLife(gpointer data) {
    auto& self = *static_cast<Page*>(data);
    if (!self.finished_) {
      return G_SOURCE_CONTINUE;
    }
    const double now = monotonicSeconds();
    if (self.askedSince_) {
      if (now - *self.askedSince_ > hangSeconds) {
        self.lifeTimer_ = 0;
        webkit_web_view_terminate_web_process(self.view_);
        self.end(3, "the page stopped responding (a script that never ends?)");
        return G_SOURCE_REMOVE;
      }
      return G_SOURCE_CONTINUE;  // still waiting for the last answer
    }
    self.askedSince_ = now;
    webkit_web_view_evaluate_javascript(
        self.view_, "0", -1, watchWorld, nullptr, nullptr,
        [](GObject* source, GAsyncResult* result, gpointer page) {
          JSCValue* value = webkit_web_view_evaluate_javascript_finish(WEBKIT_WEB_VIEW(source), result, nullptr);
          if (value != nullptr) {
            g_object_unref(value);
          }
          static_cast<Page*>(page)->askedSince_.reset();
        },
        &self);
    return G_SOURCE_CONTINUE;
  }

  static gboolean drawHeld(GtkWidget*, cairo_t* cairo, gpointer data) {
    auto& self = *static_cast<Page*>(data);
    if (self.heldPicture_ != nullptr) {
      cairo_set_source_surface(cairo, self.heldPicture_, 0, 0);
      cairo_paint(cairo);
    }
    return TRUE;
  }

  static void serve(WebKitURISchemeRequest* request, gpointer data) {
    auto& self = *static_cast<Page*>(data);
    const char* address = webkit_uri_scheme_request_get_uri(request);
    const auto file = WebSandbox::fileFor(address, self.options_.item);
    if (!file) {
      self.say_(fmt::format("refused {}: {}", address, file.error()));
      GError* error = g_error_new(G_IO_ERROR, G_IO_ERROR_PERMISSION_DENIED, "%s", file.error().c_str());
      webkit_uri_scheme_request_finish_error(request, error);
      g_error_free(error);
      return;
    }
    auto opened = engine::openBeneath(self.options_.folder, *file);
    if (!opened) {
      if (opened.error().find("outside the folder") != std::string::npos) {
        self.say_(fmt::format("refused {}: it leads outside the item's folder", address));
      }
      GError* error = g_error_new(G_IO_ERROR, G_IO_ERROR_NOT_FOUND, "%s", opened.error().c_str());
      webkit_uri_scheme_request_finish_error(request, error);
      g_error_free(error);
      return;
    }
    GInputStream* stream = g_unix_input_stream_new(opened->fd, TRUE);
    const std::string type(WebSandbox::mediaTypeOf(*file));
    webkit_uri_scheme_request_finish(request, stream, opened->size, type.c_str());
    g_object_unref(stream);
  }

  static gboolean onDecide(WebKitWebView*, WebKitPolicyDecision* decision, WebKitPolicyDecisionType type,
                           gpointer data) {
    auto& self = *static_cast<Page*>(data);
    if (type == WEBKIT_POLICY_DECISION_TYPE_RESPONSE) {
      return FALSE;
    }
    auto* navigation = WEBKIT_NAVIGATION_POLICY_DECISION(decision);
    WebKitNavigationAction* action = webkit_navigation_policy_decision_get_navigation_action(navigation);
    const char* address = webkit_uri_request_get_uri(webkit_navigation_action_get_request(action));
    const std::string target = address != nullptr ? address : "";
    if (type == WEBKIT_POLICY_DECISION_TYPE_NEW_WINDOW_ACTION) {
      self.say_(fmt::format("refused a new window for {}", target));
      webkit_policy_decision_ignore(decision);
      return TRUE;
    }
    if (!WebSandbox::allows(target, self.options_.item, self.options_.allowNetwork)) {
      self.say_(fmt::format("refused a request to {}: {}", target,
                            self.options_.allowNetwork ? "not for a wallpaper" : "this page may not use the network"));
      webkit_policy_decision_ignore(decision);
      return TRUE;
    }
    return FALSE;
  }

  static gboolean onPermission(WebKitWebView*, WebKitPermissionRequest* request, gpointer) {
    webkit_permission_request_deny(request);
    return TRUE;
  }

  static void onRefused(WebKitUserContentManager*, WebKitJavascriptResult* result, gpointer data) {
    auto& self = *static_cast<Page*>(data);
    self.say_(fmt::format("refused a request to {}: this page may not use the network", textOf(result)));
  }

  static void onPageError(WebKitUserContentManager*, WebKitJavascriptResult* result, gpointer data) {
    auto& self = *static_cast<Page*>(data);
    if (++self.errors_ <= errorsSaid) {
      self.say_(fmt::format("error in the page: {}{}", textOf(result),
                            self.errors_ == errorsSaid ? " (later errors are not said)" : ""));
    }
  }

  static void onTerminated(WebKitWebView*, WebKitWebProcessTerminationReason reason, gpointer data) {
    auto& self = *static_cast<Page*>(data);
    self.end(3, reason == WEBKIT_WEB_PROCESS_EXCEEDED_MEMORY_LIMIT ? "the page's web process used too much memory"
                                                                   : "the page's web process crashed");
  }

  static gboolean onLoadFailed(WebKitWebView*, WebKitLoadEvent, gchar* address, GError* error, gpointer data) {
    auto& self = *static_cast<Page*>(data);
    if (g_error_matches(error, WEBKIT_NETWORK_ERROR, WEBKIT_NETWORK_ERROR_CANCELLED) ||
        g_error_matches(error, WEBKIT_POLICY_ERROR, WEBKIT_POLICY_ERROR_FRAME_LOAD_INTERRUPTED_BY_POLICY_CHANGE) ||
        self.finished_) {
      return FALSE;
    }
    self.end(3, fmt::format("the page would not load ({}): {}", address, error->message));
    return TRUE;
  }

  static void onLoadChanged(WebKitWebView* view, WebKitLoadEvent event, gpointer data) {
    auto& self = *static_cast<Page*>(data);
    if (event != WEBKIT_LOAD_FINISHED || self.finished_) {
      return;
    }
    // WebKit puts a blank page in place of an address it will not load (a port it bars).
    if (const char* shown = webkit_web_view_get_uri(view);
        shown != nullptr && std::string_view(shown) == "about:blank") {
      self.end(3, "the page would not load: WebKit refused its address");
      return;
    }
    self.finished_ = true;
    if (self.loadTimer_ != 0) {
      g_source_remove(self.loadTimer_);
      self.loadTimer_ = 0;
    }
    if (self.loaded) {
      self.loaded();
    }
  }

  static gboolean onLoadTimeout(gpointer data) {
    auto& self = *static_cast<Page*>(data);
    self.loadTimer_ = 0;
    self.end(3, fmt::format("the page did not finish loading in {} s", loadLimitSeconds));
    return G_SOURCE_REMOVE;
  }

  // A script that never returns leaves the web process unresponsive: the page ends, and the
  // wallpaper shows its still. A stopped (paused) page is unresponsive by our doing.
  static void onResponsive(WebKitWebView* view, GParamSpec*, gpointer data) {
    auto& self = *static_cast<Page*>(data);
    if (self.paused_ || webkit_web_view_get_is_web_process_responsive(view) != FALSE) {
      return;
    }
    webkit_web_view_terminate_web_process(view);
    self.end(3, "the page stopped responding (a script that never ends?)");
  }

  PageOptions options_;
  Say say_;
  std::function<void(int)> quit_;
  WebKitWebContext* context_ = nullptr;
  WebKitWebView* view_ = nullptr;
  GtkWidget* window_ = nullptr;
  GtkWidget* stack_ = nullptr;
  GtkWidget* held_ = nullptr;
  cairo_surface_t* heldPicture_ = nullptr;
  unsigned pauseTurn_ = 0;
  guint loadTimer_ = 0;
  guint lifeTimer_ = 0;
  std::optional<double> askedSince_;  // a sign of life asked for and not yet given
  bool finished_ = false;
  bool paused_ = false;
  bool watching_ = false;
  int errors_ = 0;
};

struct Loop {
  GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
  int code = 0;
  bool ended = false;
  Loop() = default;
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;
  ~Loop() { g_main_loop_unref(loop); }
  void quit(int with) {
    if (!ended) {
      ended = true;
      code = with;
    }
    g_main_loop_quit(loop);
  }
};

GdkMonitor* monitorAt(int x, int y) {
  GdkDisplay* display = gdk_display_get_default();
  const int count = gdk_display_get_n_monitors(display);
  for (int i = 0; i < count; ++i) {
    GdkMonitor* monitor = gdk_display_get_monitor(display, i);
    GdkRectangle area{};
    gdk_monitor_get_geometry(monitor, &area);
    if (area.x == x && area.y == y) {
      return monitor;
    }
  }
  return nullptr;
}

// Clicks and keys go to the desktop, not to the page.
void passInputThrough(GtkWidget* window) {
  cairo_region_t* empty = cairo_region_create();
  gtk_widget_input_shape_combine_region(window, empty);
  cairo_region_destroy(empty);
}

std::expected<GtkWidget*, std::string> windowFor(const PageOptions& options, const Placement& placement) {
  GdkDisplay* display = gdk_display_get_default();
  if (GDK_IS_X11_DISPLAY(display) && placement.into) {
    GtkWidget* plug = gtk_plug_new(static_cast<Window>(*placement.into));
    gtk_window_set_default_size(GTK_WINDOW(plug), options.width, options.height);
    return plug;
  }
  GtkWidget* window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
  gtk_window_set_title(GTK_WINDOW(window), "Korvalen web wallpaper");
  gtk_window_set_default_size(GTK_WINDOW(window), options.width, options.height);
  gtk_window_set_decorated(GTK_WINDOW(window), FALSE);
  gtk_window_set_accept_focus(GTK_WINDOW(window), FALSE);
  if (GDK_IS_WAYLAND_DISPLAY(display)) {
    if (gtk_layer_is_supported() == FALSE) {
      gtk_widget_destroy(window);
      return std::unexpected("the compositor has no layer shell, so a page cannot go behind the desktop");
    }
    gtk_layer_init_for_window(GTK_WINDOW(window));
    gtk_layer_set_layer(GTK_WINDOW(window),
                        placement.bottomLayer ? GTK_LAYER_SHELL_LAYER_BOTTOM : GTK_LAYER_SHELL_LAYER_BACKGROUND);
    gtk_layer_set_namespace(GTK_WINDOW(window), "korvalen-web");
    for (const auto edge : {GTK_LAYER_SHELL_EDGE_LEFT, GTK_LAYER_SHELL_EDGE_RIGHT, GTK_LAYER_SHELL_EDGE_TOP,
                            GTK_LAYER_SHELL_EDGE_BOTTOM}) {
      gtk_layer_set_anchor(GTK_WINDOW(window), edge, TRUE);
    }
    gtk_layer_set_exclusive_zone(GTK_WINDOW(window), -1);
    gtk_layer_set_keyboard_mode(GTK_WINDOW(window), GTK_LAYER_SHELL_KEYBOARD_MODE_NONE);
    if (GdkMonitor* monitor = monitorAt(placement.x, placement.y)) {
      gtk_layer_set_monitor(GTK_WINDOW(window), monitor);
    }
  } else {
    gtk_window_set_type_hint(GTK_WINDOW(window), GDK_WINDOW_TYPE_HINT_DESKTOP);
    gtk_window_set_skip_taskbar_hint(GTK_WINDOW(window), TRUE);
    gtk_window_set_skip_pager_hint(GTK_WINDOW(window), TRUE);
    gtk_window_set_keep_below(GTK_WINDOW(window), TRUE);
    gtk_window_move(GTK_WINDOW(window), placement.x, placement.y);
  }
  return window;
}

struct Commands {
  Page* page = nullptr;
  Loop* loop = nullptr;
  bool watching = true;
};

gboolean onCommand(GIOChannel* channel, GIOCondition condition, gpointer data) {
  auto& commands = *static_cast<Commands*>(data);
  if ((condition & G_IO_IN) != 0) {
    gchar* line = nullptr;
    gsize length = 0;
    const GIOStatus status = g_io_channel_read_line(channel, &line, &length, nullptr, nullptr);
    if (status == G_IO_STATUS_NORMAL && line != nullptr) {
      const std::string command = g_strstrip(line);
      g_free(line);
      if (command == "pause" || command == "resume") {
        commands.page->setPaused(command == "pause");
      } else if (command == "mute" || command == "unmute") {
        commands.page->setMuted(command == "mute");
      } else if (int fps = 0; std::sscanf(command.c_str(), "fps %d", &fps) == 1 && fps > 0) {
        commands.page->setFpsCap(fps);
      } else if (command == "quit") {
        commands.watching = false;
        commands.page->end(0, "");
        return G_SOURCE_REMOVE;
      }
      return G_SOURCE_CONTINUE;
    }
    g_free(line);
    if (status == G_IO_STATUS_AGAIN) {
      return G_SOURCE_CONTINUE;
    }
  }
  commands.watching = false;
  commands.page->end(0, "");  // the wallpaper went away
  return G_SOURCE_REMOVE;
}

}  // namespace

int showPage(const PageOptions& options, const Placement& placement, bool muted, bool paused, const Say& say) {
  Loop loop;
  Page page(options, say);
  page.make([&](int code) { loop.quit(code); });
  auto window = windowFor(options, placement);
  if (!window) {
    say(window.error());
    return 3;
  }
  passInputThrough(*window);
  page.setWindow(*window);
  page.setMuted(muted);
  gtk_widget_show_all(*window);
  if (placement.into) {
    // The wallpaper's window is no XEMBED socket: nobody else maps the page into it.
    gdk_window_show(gtk_widget_get_window(*window));
  }
  Commands commands{&page, &loop, true};
  GIOChannel* input = g_io_channel_unix_new(STDIN_FILENO);
  const guint watch =
      g_io_add_watch(input, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR), &onCommand, &commands);
  page.loaded = [&] {
    if (paused) {
      page.setPaused(true);  // shows its first picture, then holds it
    }
  };
  // Ended by the wallpaper (or anyone): the page's stopped processes are woken first, or
  // they would outlive us, stopped.
  const auto onStop = +[](gpointer data) -> gboolean {
    static_cast<Page*>(data)->end(0, "");
    return G_SOURCE_CONTINUE;
  };
  const guint onTerm = g_unix_signal_add(SIGTERM, onStop, &page);
  const guint onInt = g_unix_signal_add(SIGINT, onStop, &page);
  page.load();
  page.watchForHangs();
  g_main_loop_run(loop.loop);
  g_source_remove(onTerm);
  g_source_remove(onInt);
  if (commands.watching) {
    g_source_remove(watch);
  }
  g_io_channel_unref(input);
  return loop.code;
}

int makeStill(const PageOptions& options, const std::filesystem::path& still, double seconds, const Say& say) {
  Loop loop;
  Page page(options, say);
  page.make([&](int code) { loop.quit(code == 0 ? 0 : 1); });
  page.setWindow(gtk_offscreen_window_new());
  page.setMuted(true);
  gtk_window_set_default_size(GTK_WINDOW(gtk_widget_get_toplevel(GTK_WIDGET(page.view()))), options.width,
                              options.height);
  gtk_widget_show_all(gtk_widget_get_toplevel(GTK_WIDGET(page.view())));

  struct Capture {
    Page* page = nullptr;
    Loop* loop = nullptr;
    const Say* say = nullptr;
    std::filesystem::path still;
    FlashAnalyzer analyzer;
    std::int64_t samples = 0;
    bool stillDue = false;
    bool busy = false;
    guint stillTimer = 0;
  } capture{&page, &loop, &say, still, {}, 0, false, false, 0};

  static constexpr auto measure = [](cairo_surface_t* surface) {
    cairo_surface_flush(surface);
    const auto* bytes = cairo_image_surface_get_data(surface);
    const auto width = cairo_image_surface_get_width(surface);
    const auto height = cairo_image_surface_get_height(surface);
    const auto stride = cairo_image_surface_get_stride(surface);
    return regionLuminance(
        std::span<const std::uint8_t>(bytes, static_cast<std::size_t>(stride) * static_cast<std::size_t>(height)),
        width, height, stride, FitRect::unit());
  };
  static void (*next)(Capture&) = nullptr;
  next = [](Capture& c) {
    c.busy = true;
    webkit_web_view_get_snapshot(
        c.page->view(), WEBKIT_SNAPSHOT_REGION_VISIBLE, WEBKIT_SNAPSHOT_OPTIONS_NONE, nullptr,
        [](GObject* source, GAsyncResult* result, gpointer data) {
          auto& done = *static_cast<Capture*>(data);
          done.busy = false;
          GError* error = nullptr;
          cairo_surface_t* surface = webkit_web_view_get_snapshot_finish(WEBKIT_WEB_VIEW(source), result, &error);
          if (surface == nullptr) {
            done.page->end(1, fmt::format("no picture of the page: {}", error != nullptr ? error->message : "?"));
            g_clear_error(&error);
            return;
          }
          done.analyzer.observe(monotonicSeconds(), measure(surface));
          ++done.samples;
          if (!done.stillDue) {
            cairo_surface_destroy(surface);
            next(done);
            return;
          }
          const auto written = cairo_surface_write_to_png(surface, done.still.c_str());
          cairo_surface_destroy(surface);
          if (written != CAIRO_STATUS_SUCCESS) {
            done.page->end(1, fmt::format("{}: {}", done.still.string(), cairo_status_to_string(written)));
            return;
          }
          nlohmann::json line{{"still", done.still.string()},
                              {"flashes", done.analyzer.violated()},
                              {"peak", done.analyzer.peakFlashesPerSecond()},
                              {"samples", done.samples}};
          fmt::print("{}\n", line.dump());
          std::fflush(stdout);
          done.page->end(0, "");
        },
        &c);
  };
  page.loaded = [&] {
    // Measured from the first frames on, and the still taken `seconds` after the load.
    next(capture);
    capture.stillTimer = g_timeout_add(
        static_cast<guint>(seconds * 1000),
        +[](gpointer data) -> gboolean {
          auto& c = *static_cast<Capture*>(data);
          c.stillTimer = 0;
          c.stillDue = true;
          if (!c.busy) {
            next(c);
          }
          return G_SOURCE_REMOVE;
        },
        &capture);
  };
  page.load();
  g_main_loop_run(loop.loop);
  if (capture.stillTimer != 0) {
    g_source_remove(capture.stillTimer);
  }
  return loop.code;
}

}  // namespace korvalen::web
