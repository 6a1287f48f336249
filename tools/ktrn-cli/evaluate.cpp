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

// Asks the request for a view and waits for the result that answers it.
static bool AwaitView(Cli *cli, EvaluationRequest *request, EvaluationView *view) {
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
    if (r == kPumpEvaluated && (request->parse_failed || request->result_serial == view->serial)) return true;
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
  if (!AwaitView(cli, request, &view)) return false;
  u64 total = request->row.child_count;
  u64 shown = total < kExpandMaxChildren ? total : kExpandMaxChildren;
  // The rows of one page are copied out: the request answers for the rows below them next.
  PrintedRow *page = (PrintedRow *)malloc(sizeof(PrintedRow) * kEvaluationChildRows);
  if (!page) return false;
  bool ok = true;
  for (u64 first = 0; first < shown && ok; first += kEvaluationChildRows) {
    if (first) {
      view.children_first = first;
      if (!AwaitView(cli, request, &view)) {
        ok = false;
        break;
      }
    }
    u32 count = request->child_rows;
    for (u32 i = 0; i < count; i++) {
      page[i].child_count = request->children[i].child_count;
      RowLine(&request->children[i], page[i].line, sizeof page[i].line);
    }
    for (u32 i = 0; i < count && first + i < shown && ok; i++) {
      printf("%*s%s\n", (int)(2 * (path_length + 1)), "", page[i].line);
      if (depth > 1 && page[i].child_count && path_length + 1 < kExpandMaxDepth) {
        path[path_length] = first + i;
        ok = ExpandRow(cli, request, path, path_length + 1, depth - 1);
      }
    }
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
  bool ok = AwaitView(cli, request, &view);
  if (ok) {
    if (request->parse_failed) {
      printf("%s | %s | \n", text, request->result);
    } else {
      char line[sizeof(PrintedRow::line)];
      RowLine(&request->row, line, sizeof line);
      printf("%s\n", line);
      u64 path[kExpandMaxDepth];
      if (depth && request->row.child_count) ok = ExpandRow(cli, request, path, 0, depth);
    }
  }
  RemoveRequest(cli, request);
  return ok;
}
