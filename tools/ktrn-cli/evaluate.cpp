// eval and expand: expressions evaluated by the engine at the stop, as watch rows. Each command
// adds one evaluation request, asks for the rows it prints through the request's view, waits for
// the engine's answer to that view, and removes the request.
#include <stdlib.h>
#include <string.h>

#include "cli.h"

enum : u32 {
  kEvaluateTimeoutMs = 10000,
  kExpandMaxDepth = kEvaluationPathCapacity,
  kExpandMaxChildren = 1000,  // rows printed under one row; more are summed up in one line
};

// A child row as printed, kept while the request answers for the rows below it.
typedef struct PrintedRow {
  u64 child_count;
  char line[kExprRowNameCapacity + kExprRowValueCapacity + kExprRowTypeCapacity + 8];
} PrintedRow;

static void RowLine(const ExprRow *row, char *out, u32 size) {
  snprintf(out, size, "%s | %s | %s", row->name, row->value_text, row->type_text);
}

// A request's results as one view had them, copied under the model lock (the engine may evaluate
// the request again at any refresh).
typedef struct ViewResult {
  u8 parse_failed;
  char parse_text[kEvaluationTextCapacity];
  ExprRow row;
  u32 child_rows;
  ExprRow children[kEvaluationChildRows];
} ViewResult;

// True (and out filled) when the request's results answer the view.
static bool TakeResults(Cli *cli, const EvaluationRequest *request, u32 serial, ViewResult *out) {
  if (!EngineLockModel(cli->target)) return false;
  bool answered = request->parse_failed || request->result_serial == serial;
  if (answered) {
    out->parse_failed = request->parse_failed;
    memcpy(out->parse_text, request->result, sizeof out->parse_text);
    out->row = request->row;
    out->child_rows = request->child_rows;
    memcpy(out->children, request->children, sizeof(ExprRow) * request->child_rows);
  }
  EngineUnlockModel(cli->target);
  return answered;
}

// Asks the request for a view and waits for the result that answers it.
static bool AwaitView(Cli *cli, EvaluationRequest *request, EvaluationView *view, ViewResult *out) {
  static u32 serial;
  view->serial = ++serial;
  EngineResult result = EngineSetEvaluationView(cli->target, request, view);
  if (result != kEngineOk) {
    CliError(cli, "%s", CliResultText(result));
    return false;
  }
  ULONGLONG begin = GetTickCount64();
  for (;;) {
    PumpResult r = CliPump(cli, true, kEvaluateTimeoutMs);
    if (r == kPumpEvaluated && TakeResults(cli, request, view->serial, out)) return true;
    if (r == kPumpEnded || r == kPumpStopped) {
      CliError(cli, "the target did not stay stopped");
      return false;
    }
    if (r == kPumpTimedOut || GetTickCount64() - begin >= kEvaluateTimeoutMs) {
      CliError(cli, "the engine did not answer within %u s", kEvaluateTimeoutMs / 1000);
      return false;
    }
  }
}

static EvaluationRequest *AddRequest(Cli *cli, const char *text) {
  static u32 cookies;  // a fresh cookie per request: a late answer to an earlier one is not taken
  (void)EngineWaitStopped(cli->target, kEvaluateTimeoutMs);
  EvaluationRequest *request = nullptr;
  void *cookie = (void *)(uintptr_t)(0x1000 + ++cookies);
  EngineResult result = EngineAddEvaluationRequest(cli->target, text, cookie, &request);
  if (result != kEngineOk) {
    CliError(cli, "%s", CliResultText(result));
    return nullptr;
  }
  cli->awaited_evaluation = cookie;
  return request;
}

static void RemoveRequest(Cli *cli, EvaluationRequest *request) {
  cli->awaited_evaluation = nullptr;
  (void)EngineRemoveEvaluationRequest(cli->target, request);
}

bool CliEvaluate(Cli *cli, const char *text) { return CliExpand(cli, text, 0); }

// Prints the children of the row at path (path_length deep), depth levels down.
static bool ExpandRow(Cli *cli, EvaluationRequest *request, u64 *path, u32 path_length, u32 depth) {
  EvaluationView view;
  memset(&view, 0, sizeof view);
  view.path_length = path_length;
  memcpy(view.path, path, sizeof(u64) * path_length);
  view.children_wanted = kEvaluationChildRows;
  // One page of rows at a time, copied out: the request answers for the rows below them next.
  ViewResult *page = (ViewResult *)malloc(sizeof(ViewResult));
  if (!page) return false;
  bool ok = AwaitView(cli, request, &view, page);
  u64 total = ok ? page->row.child_count : 0;
  u64 shown = total < kExpandMaxChildren ? total : kExpandMaxChildren;
  for (u64 first = 0; first < shown && ok; first += kEvaluationChildRows) {
    if (first) {
      view.children_first = first;
      if (!AwaitView(cli, request, &view, page)) {
        ok = false;
        break;
      }
    }
    u32 count = page->child_rows;
    PrintedRow *rows = (PrintedRow *)malloc(sizeof(PrintedRow) * (count ? count : 1));
    if (!rows) {
      ok = false;
      break;
    }
    for (u32 i = 0; i < count; i++) {
      rows[i].child_count = page->children[i].child_count;
      RowLine(&page->children[i], rows[i].line, sizeof rows[i].line);
    }
    for (u32 i = 0; i < count && first + i < shown && ok; i++) {
      printf("%*s%s\n", (int)(2 * (path_length + 1)), "", rows[i].line);
      if (depth > 1 && rows[i].child_count && path_length + 1 < kExpandMaxDepth) {
        path[path_length] = first + i;
        ok = ExpandRow(cli, request, path, path_length + 1, depth - 1);
      }
    }
    free(rows);
    if (!count) break;
  }
  free(page);
  if (ok && shown < total)
    printf("%*s... %llu more\n", (int)(2 * (path_length + 1)), "", (unsigned long long)(total - shown));
  return ok;
}

bool CliExpand(Cli *cli, const char *text, u32 depth) {
  EvaluationRequest *request = AddRequest(cli, text);
  if (!request) return false;
  EvaluationView view;
  memset(&view, 0, sizeof view);
  ViewResult *result = (ViewResult *)malloc(sizeof(ViewResult));
  bool ok = result && AwaitView(cli, request, &view, result);
  if (ok) {
    if (result->parse_failed) {
      printf("%s | %s | \n", text, result->parse_text);
    } else {
      char line[sizeof(PrintedRow::line)];
      RowLine(&result->row, line, sizeof line);
      printf("%s\n", line);
      u64 path[kExpandMaxDepth];
      if (depth && result->row.child_count) ok = ExpandRow(cli, request, path, 0, depth);
    }
  }
  free(result);
  RemoveRequest(cli, request);
  return ok;
}
