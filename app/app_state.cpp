#include "app/app_state.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

void AppStateInit(AppState *app) {
  memset(app, 0, sizeof(*app));
  SessionInit(&app->session);
  SettingsInitDefaults(&app->settings);
  SourceTabsInit(&app->sources);
  app->first_run_layout = 1;
  app->placement.x = app->placement.y = kSettingsUseDefault;
  app->placement.width = app->placement.height = kSettingsUseDefault;
  app->title_dirty = 1;
}

void AppStateFree(AppState *app) {
  SessionFree(&app->session);
  SourceTabsFree(&app->sources);
  AppStateClearPending(app);
  free(app->output.text);
  memset(&app->output, 0, sizeof(app->output));
}

const char *PathFileName(const char *path) {
  const char *name = path;
  for (const char *p = path; *p; p++)
    if (*p == '\\' || *p == '/') name = p + 1;
  return name;
}

void AppStateTitle(const AppState *app, char *out, u32 capacity) {
  const char *name = "Untitled";
  if (app->session.path[0]) {
    name = PathFileName(app->session.path);
  } else {
    const Session *s = &app->session;
    const TargetCommand *t = s->current_target < s->target_count ? s->targets[s->current_target] : nullptr;
    if (t && t->command && t->command[0]) name = PathFileName(t->command);
  }
  snprintf(out, capacity, "%s%s - Kestrune", name, app->session.modified ? "*" : "");
}

void AppStateSetPending(AppState *app, u32 code, const char *path) {
  AppStateClearPending(app);
  app->pending.code = code;
  if (path) app->pending.path = TextDuplicateZ(path);
}

void AppStateClearPending(AppState *app) {
  free(app->pending.path);
  memset(&app->pending, 0, sizeof(app->pending));
}

void OutputAppend(OutputLog *log, const char *text, u64 length) {
  if (!length) return;
  if (log->length + length + 1 > log->capacity) {
    u64 next = log->capacity ? log->capacity * 2 : 64 * 1024;
    while (next < log->length + length + 1) next *= 2;
    char *grown = (char *)realloc(log->text, (size_t)next);
    if (!grown) return;
    log->text = grown;
    log->capacity = next;
  }
  memcpy(log->text + log->length, text, (size_t)length);
  log->length += length;
  log->text[log->length] = 0;
  log->grew = 1;
}

void OutputAppendZ(OutputLog *log, const char *text) { OutputAppend(log, text, strlen(text)); }

void OutputClear(OutputLog *log) {
  log->length = 0;
  if (log->text) log->text[0] = 0;
}
