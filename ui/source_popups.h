// The source view's menus and popups: the text's context menu "##txtmenu", the tab menu
// "##txttabmenu", Find in File and Go to Line. Each records requests; nothing here runs the target.
#pragma once
#include "ui/source_view.h"

// Inside the tab's text area, after a right click opened "##txtmenu" there.
void DrawSourceContextMenu(AppState *app, SourceViewState *view, SourceViewRequests *requests, SourceTab *tab, s32 index);
// Right after the tab's Begin: its tab item is the last item.
void DrawSourceTabMenu(SourceTab *tab, SourceViewRequests *requests, s32 index);
// Top level, once per frame: the popups the menu or the keys asked for, and Find Next / Find Prev.
void DrawSourcePopups(AppState *app, SourceViewState *view);
