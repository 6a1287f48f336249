#include "ui/list_selection.h"

#include <imgui.h>
#include <stdlib.h>
#include <string.h>

// The place of key in the ascending keys, or where it would go.
static u32 LowerBound(const ListSelection *s, u64 key) {
  u32 low = 0, high = s->count;
  while (low < high) {
    u32 middle = low + (high - low) / 2;
    if (s->keys[middle] < key) low = middle + 1;
    else high = middle;
  }
  return low;
}

bool ListSelected(const ListSelection *s, u64 key) {
  u32 at = LowerBound(s, key);
  return at < s->count && s->keys[at] == key;
}

static void Select(ListSelection *s, u64 key, bool on) {
  u32 at = LowerBound(s, key);
  bool there = at < s->count && s->keys[at] == key;
  if (on && !there && s->count < kListSelectionCapacity) {
    memmove(&s->keys[at + 1], &s->keys[at], (s->count - at) * sizeof s->keys[0]);
    s->keys[at] = key;
    s->count++;
  } else if (!on && there) {
    memmove(&s->keys[at], &s->keys[at + 1], (s->count - at - 1) * sizeof s->keys[0]);
    s->count--;
  }
}

static int CompareKeys(const void *a, const void *b) {
  u64 x = *(const u64 *)a, y = *(const u64 *)b;
  return x < y ? -1 : x > y;
}

// The selection becomes rows[first..last] (both included).
static void SelectRange(ListSelection *s, const u64 *rows, u32 first, u32 last) {
  s->count = 0;
  for (u32 i = first; i <= last && s->count < kListSelectionCapacity; i++) s->keys[s->count++] = rows[i];
  qsort(s->keys, s->count, sizeof s->keys[0], CompareKeys);
}

static s32 RowOf(const u64 *rows, u32 row_count, u64 key) {
  for (u32 i = 0; i < row_count; i++)
    if (rows[i] == key) return (s32)i;
  return -1;
}

void ListSelectionKeepRows(ListSelection *s, const u64 *rows, u32 row_count) {
  if (!s->count) return;
  u32 kept = 0;
  for (u32 i = 0; i < row_count; i++) kept += ListSelected(s, rows[i]);
  if (kept == s->count) return;  // the common case: nothing ended
  static u64 found[kListSelectionCapacity];  // the user-interface thread's alone
  kept = 0;
  for (u32 i = 0; i < row_count && kept < kListSelectionCapacity; i++)
    if (ListSelected(s, rows[i])) found[kept++] = rows[i];
  memcpy(s->keys, found, kept * sizeof found[0]);
  s->count = kept;
  qsort(s->keys, s->count, sizeof s->keys[0], CompareKeys);
}

void ListSelectionClick(ListSelection *s, const u64 *rows, u32 row_count, u32 row, bool ctrl, bool shift) {
  if (row >= row_count) return;
  u64 key = rows[row];
  s32 from = shift ? RowOf(rows, row_count, s->last) : -1;
  if (from >= 0) {  // the last clicked row stays where a next Shift+click starts
    SelectRange(s, rows, (u32)from < row ? (u32)from : row, (u32)from < row ? row : (u32)from);
    return;
  }
  if (ctrl) {
    Select(s, key, !ListSelected(s, key));
  } else if (!ListSelected(s, key)) {
    s->count = 0;
    Select(s, key, true);
  }
  s->last = key;
}

ListKeyAction ListSelectionKeys(ListSelection *s, const u64 *rows, u32 row_count, u32 page_rows, s32 *moved_to) {
  *moved_to = -1;
  const ImGuiIO &io = ImGui::GetIO();
  if (io.KeyCtrl) {
    if (ImGui::IsKeyPressed(ImGuiKey_A, false) && row_count) SelectRange(s, rows, 0, row_count - 1);
    return ImGui::IsKeyPressed(ImGuiKey_C, false) ? kListKeyCopy : kListKeyNone;
  }
  if (ImGui::IsKeyPressed(ImGuiKey_Enter, false) || ImGui::IsKeyPressed(ImGuiKey_KeypadEnter, false)) return kListKeyActivate;
  if (!row_count) return kListKeyNone;
  s32 at = RowOf(rows, row_count, s->last), page = page_rows ? (s32)page_rows : 1, to;
  // With no row to start from, every key goes to the top (End to the bottom).
  if (ImGui::IsKeyPressed(ImGuiKey_UpArrow)) to = at < 0 ? 0 : at - 1;
  else if (ImGui::IsKeyPressed(ImGuiKey_DownArrow)) to = at < 0 ? 0 : at + 1;
  else if (ImGui::IsKeyPressed(ImGuiKey_PageUp)) to = at < 0 ? 0 : at - page;
  else if (ImGui::IsKeyPressed(ImGuiKey_PageDown)) to = at < 0 ? 0 : at + page;
  else if (ImGui::IsKeyPressed(ImGuiKey_Home, false)) to = 0;
  else if (ImGui::IsKeyPressed(ImGuiKey_End, false)) to = (s32)row_count - 1;
  else return kListKeyNone;
  to = to < 0 ? 0 : to >= (s32)row_count ? (s32)row_count - 1 : to;
  s->count = 0;
  Select(s, rows[to], true);
  s->last = rows[to];
  *moved_to = to;
  return kListKeyNone;
}
