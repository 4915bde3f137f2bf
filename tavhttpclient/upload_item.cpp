// Pieces of upload data.
#include "tavhttpclient/upload_item.h"

#include <stdlib.h>

#include "tavhttpclient/fs.h"
#include "tavhttpclient/loop.h"

void free_upload_item(upload_item* item) {
    if (item == nullptr) {
        return;
    }
    // The worker that prepares a request may free items too; there the file is closed at once.
    if (item->file != nullptr && !(is_loop_thread() && tavhttp_async_close(item->file))) {
        tavhttp_fclose(item->file);
    }
    free(item->name);
    free(item->file_name);
    free(item->data_file_name);
    free(item->form_path);
    text_buffer_release(&item->part_header);
    text_buffer_release(&item->part_tailer);
    text_buffer_release(&item->form_value);
    text_buffer_release(&item->form_data);
    free(item);
}
