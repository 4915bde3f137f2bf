// One piece of upload data: as the host gave it, and as it is sent.
#ifndef TAVHTTPCLIENT_UPLOAD_ITEM_H
#define TAVHTTPCLIENT_UPLOAD_ITEM_H

#include <stdint.h>
#include <stdio.h>

#include "tavhttpclient/list.h"
#include "tavhttpclient/util.h"

// Kinds of an upload item. The bit 0x10000 marks content in memory, 0x20000 content in a file.
enum {
    UPLOAD_ITEM_MEMORY_BIT = 0x10000,
    UPLOAD_ITEM_FILE_BIT = 0x20000,
    UPLOAD_ITEM_DATA = 0x10001,
    UPLOAD_ITEM_FILE = 0x20002,
    UPLOAD_ITEM_FORM_FIELD = 0x10003,
    UPLOAD_ITEM_FORM_FILE = 0x20004,
    UPLOAD_ITEM_FORM_DATA = 0x10005
};

// In http_options.form_list it is what the host gave (the names and the form_ fields); in
// http_request.upload_item_list it is what is being sent (all the others).
struct upload_item {
    list_link link;
    uint32_t kind;
    char* name;
    text_buffer part_header;  // sent before the content
    text_buffer part_tailer;  // sent after the content
    FILE* file;               // owned; closed on a worker thread when the item is freed
    int64_t file_size;        // when it was opened
    char* file_name;          // announced for UPLOAD_ITEM_FORM_FILE
    char* data_file_name;     // announced for UPLOAD_ITEM_FORM_DATA
    text_buffer* data;        // not owned: a buffer of the options, or http_request.form_body

    text_buffer form_value;  // host's entry: text of a field (storage set: the entry is a field)
    char* form_path;         // host's entry: path of a file, may be ""
    text_buffer form_data;   // host's entry: bytes
};
LIST_ENTRY_CHECK(upload_item);

// Frees an item with all it owns; null is allowed. An open file is closed asynchronously on the
// loop thread, at once elsewhere.
void free_upload_item(upload_item* item);

#endif
