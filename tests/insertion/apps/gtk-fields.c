/* A GTK 3 window with the fields a dictation lands in: an entry, a text view and
 * a slider (an element whose value is a number). The insertion tests drive it
 * over standard input and read back what the user would see; every line it
 * writes is one record:
 *   ready <xid>                              once the window is on screen (xid 0: a native
 *                                            Wayland window)
 *   focus <field>                            a field got the keyboard focus
 *   unfocus <field>                          a field lost it
 *   key <keyval name> <modifiers>            a key went down ("control+shift", "none")
 *   where <field> <x> <y>                    reply: the field's centre on the screen
 *   text <field> <text> <before caret> <selection>   reply: base64 UTF-8 each
 *   value <field> <number>                   reply for the slider
 *   focused <field or none> <0 or 1>         reply: the window's focus widget, and
 *                                            whether the window has the keyboard
 *   ok                                       reply to "set" and "grab"
 * Commands: where <field> | get <field> | set <field> <base64 text> <start> <end> | focused
 *           copy-image (puts a small picture, and nothing else, on the clipboard)
 *           grab <field> (the field takes the window's focus: where no tool can click, as on Wayland)
 */
#include <gdk/gdkx.h>
#include <gtk/gtk.h>
#include <stdio.h>
#include <string.h>

static GtkWidget *window, *entry, *textview, *slider;

static GtkWidget* field(const char* name)
{
    if (strcmp(name, "entry") == 0)
        return entry;
    if (strcmp(name, "textview") == 0)
        return textview;
    if (strcmp(name, "slider") == 0)
        return slider;
    return NULL;
}

static const char* field_name(GtkWidget* widget)
{
    return widget == entry ? "entry" : widget == textview ? "textview" : widget == slider ? "slider" : "other";
}

static void print_b64(const char* text)
{
    gchar* encoded = g_base64_encode((const guchar*)text, strlen(text));
    printf(" %s", *encoded ? encoded : "-");
    g_free(encoded);
}

static void report_text(const char* name)
{
    gchar *all, *before, *selected;
    if (strcmp(name, "entry") == 0) {
        const char* text = gtk_entry_get_text(GTK_ENTRY(entry));
        gint caret = gtk_editable_get_position(GTK_EDITABLE(entry));
        gint start = 0, end = 0;
        gtk_editable_get_selection_bounds(GTK_EDITABLE(entry), &start, &end);
        all = g_strdup(text);
        before = gtk_editable_get_chars(GTK_EDITABLE(entry), 0, caret);
        selected = gtk_editable_get_chars(GTK_EDITABLE(entry), start, end);
    } else {
        GtkTextBuffer* buffer = gtk_text_view_get_buffer(GTK_TEXT_VIEW(textview));
        GtkTextIter begin, finish, caret, start, end;
        gtk_text_buffer_get_bounds(buffer, &begin, &finish);
        gtk_text_buffer_get_iter_at_mark(buffer, &caret, gtk_text_buffer_get_insert(buffer));
        gtk_text_buffer_get_selection_bounds(buffer, &start, &end);
        all = gtk_text_buffer_get_text(buffer, &begin, &finish, TRUE);
        before = gtk_text_buffer_get_text(buffer, &begin, &caret, TRUE);
        selected = gtk_text_buffer_get_text(buffer, &start, &end, TRUE);
    }
    printf("text %s", name);
    print_b64(all);
    print_b64(before);
    print_b64(selected);
    printf("\n");
    g_free(all);
    g_free(before);
    g_free(selected);
}

static void set_text(const char* name, const char* encoded, int start, int end)
{
    gsize length = 0;
    guchar* decoded = strcmp(encoded, "-") == 0 ? (guchar*)g_strdup("") : g_base64_decode(encoded, &length);
    gchar* text = g_strndup((const gchar*)decoded, strcmp(encoded, "-") == 0 ? 0 : length);
    if (strcmp(name, "entry") == 0) {
        gtk_entry_set_text(GTK_ENTRY(entry), text);
        gtk_editable_select_region(GTK_EDITABLE(entry), start, end);
    } else {
        GtkTextBuffer* buffer = gtk_text_view_get_buffer(GTK_TEXT_VIEW(textview));
        GtkTextIter from, to;
        gtk_text_buffer_set_text(buffer, text, -1);
        gtk_text_buffer_get_iter_at_offset(buffer, &from, start);
        gtk_text_buffer_get_iter_at_offset(buffer, &to, end);
        /* The insert mark is the caret: the selection runs from it to "bound". */
        gtk_text_buffer_select_range(buffer, &to, &from);
    }
    g_free(decoded);
    g_free(text);
    printf("ok\n");
}

static void command(char* line)
{
    char name[32] = "", encoded[4096] = "";
    int start = 0, end = 0;
    if (strcmp(line, "copy-image") == 0) {
        GdkPixbuf* picture = gdk_pixbuf_new(GDK_COLORSPACE_RGB, FALSE, 8, 8, 8);
        gdk_pixbuf_fill(picture, 0xff0000ff);
        gtk_clipboard_set_image(gtk_clipboard_get(GDK_SELECTION_CLIPBOARD), picture);
        g_object_unref(picture);
        printf("ok\n");
    } else if (strcmp(line, "focused") == 0) {
        GtkWidget* focus = gtk_window_get_focus(GTK_WINDOW(window));
        printf("focused %s %d\n", focus ? field_name(focus) : "none",
            gtk_window_has_toplevel_focus(GTK_WINDOW(window)) ? 1 : 0);
    } else if (sscanf(line, "where %31s", name) == 1 && field(name)) {
        GtkAllocation box;
        gint x = 0, y = 0, origin_x = 0, origin_y = 0;
        gtk_widget_get_allocation(field(name), &box);
        gtk_widget_translate_coordinates(field(name), window, box.width / 2, box.height / 2, &x, &y);
        gdk_window_get_origin(gtk_widget_get_window(window), &origin_x, &origin_y);
        printf("where %s %d %d\n", name, origin_x + x, origin_y + y);
    } else if (sscanf(line, "grab %31s", name) == 1 && field(name)) {
        gtk_widget_grab_focus(field(name));
        printf("ok\n");
    } else if (sscanf(line, "get %31s", name) == 1 && strcmp(name, "slider") == 0) {
        printf("value slider %g\n", gtk_range_get_value(GTK_RANGE(slider)));
    } else if (sscanf(line, "get %31s", name) == 1 && field(name)) {
        report_text(name);
    } else if (sscanf(line, "set %31s %4095s %d %d", name, encoded, &start, &end) == 4 && field(name)) {
        set_text(name, encoded, start, end);
    } else {
        printf("error %s\n", line);
    }
}

static gboolean on_input(GIOChannel* channel, GIOCondition condition, gpointer data)
{
    (void)condition;
    (void)data;
    gchar* line = NULL;
    gsize terminator = 0;
    GIOStatus status = g_io_channel_read_line(channel, &line, NULL, &terminator, NULL);
    if (status == G_IO_STATUS_EOF || status == G_IO_STATUS_ERROR) {
        gtk_main_quit();
        return FALSE;
    }
    if (line) {
        line[terminator] = '\0';
        command(line);
        g_free(line);
    }
    return TRUE;
}

static gboolean on_focus_in(GtkWidget* widget, GdkEvent* event, gpointer data)
{
    (void)event;
    (void)data;
    printf("focus %s\n", field_name(widget));
    return FALSE;
}

static gboolean on_focus_out(GtkWidget* widget, GdkEvent* event, gpointer data)
{
    (void)event;
    (void)data;
    printf("unfocus %s\n", field_name(widget));
    return FALSE;
}

static gboolean on_key(GtkWidget* widget, GdkEventKey* event, gpointer data)
{
    (void)widget;
    (void)data;
    GString* modifiers = g_string_new("");
    const struct {
        guint mask;
        const char* name;
    } names[] = { { GDK_CONTROL_MASK, "control" }, { GDK_SHIFT_MASK, "shift" }, { GDK_MOD1_MASK, "alt" },
        { GDK_SUPER_MASK, "super" }, { GDK_MOD4_MASK, "mod4" }, { GDK_MOD5_MASK, "mod5" } };
    for (size_t i = 0; i < G_N_ELEMENTS(names); ++i) {
        if (event->state & names[i].mask)
            g_string_append_printf(modifiers, "%s%s", modifiers->len ? "+" : "", names[i].name);
    }
    printf(
        "key %s %s\n", gdk_keyval_name(gdk_keyval_to_lower(event->keyval)), modifiers->len ? modifiers->str : "none");
    g_string_free(modifiers, TRUE);
    return FALSE;
}

static gboolean announce(gpointer data)
{
    (void)data;
    GdkWindow* shown = gtk_widget_get_window(window);
    printf("ready %lu\n", GDK_IS_X11_WINDOW(shown) ? (unsigned long)gdk_x11_window_get_xid(shown) : 0UL);
    return G_SOURCE_REMOVE;
}

static void on_mapped(GtkWidget* widget, GdkEvent* event, gpointer data)
{
    (void)widget;
    (void)event;
    (void)data;
    g_idle_add(announce, NULL);
}

int main(int argc, char** argv)
{
    setvbuf(stdout, NULL, _IOLBF, 0);
    gtk_init(&argc, &argv);

    window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
    gtk_window_set_title(GTK_WINDOW(window), "GTK fields");
    gtk_window_set_default_size(GTK_WINDOW(window), 600, 320);
    gtk_window_move(GTK_WINDOW(window), 0, 0);

    GtkWidget* grid = gtk_grid_new();
    gtk_grid_set_row_spacing(GTK_GRID(grid), 12);
    gtk_container_set_border_width(GTK_CONTAINER(grid), 12);
    entry = gtk_entry_new();
    gtk_widget_set_hexpand(entry, TRUE);
    textview = gtk_text_view_new();
    gtk_widget_set_size_request(textview, 560, 120);
    slider = gtk_scale_new_with_range(GTK_ORIENTATION_HORIZONTAL, 0, 100, 1);
    gtk_range_set_value(GTK_RANGE(slider), 40);
    gtk_grid_attach(GTK_GRID(grid), entry, 0, 0, 1, 1);
    gtk_grid_attach(GTK_GRID(grid), textview, 0, 1, 1, 1);
    gtk_grid_attach(GTK_GRID(grid), slider, 0, 2, 1, 1);
    gtk_container_add(GTK_CONTAINER(window), grid);

    GtkWidget* fields[] = { entry, textview, slider };
    for (size_t i = 0; i < G_N_ELEMENTS(fields); ++i)
        g_signal_connect(fields[i], "focus-in-event", G_CALLBACK(on_focus_in), NULL);
    for (size_t i = 0; i < G_N_ELEMENTS(fields); ++i)
        g_signal_connect(fields[i], "focus-out-event", G_CALLBACK(on_focus_out), NULL);
    g_signal_connect(window, "key-press-event", G_CALLBACK(on_key), NULL);
    g_signal_connect(window, "map-event", G_CALLBACK(on_mapped), NULL);
    g_signal_connect(window, "destroy", G_CALLBACK(gtk_main_quit), NULL);

    GIOChannel* input = g_io_channel_unix_new(0);
    g_io_add_watch(input, G_IO_IN | G_IO_HUP | G_IO_ERR, on_input, NULL);

    gtk_widget_show_all(window);
    gtk_main();
    return 0;
}
