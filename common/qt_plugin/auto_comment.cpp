#include "auto_comment.h"

#include "text_format.h"

struct Page_Size_Word {
    boolean PAGE_SIZES_USED::*used;
    const char *word;
};

static constexpr Page_Size_Word PAGE_SIZE_WORDS[] = {
    {&PAGE_SIZES_USED::PAGE_4K, "4K "},     {&PAGE_SIZES_USED::PAGE_16K, "16K "},
    {&PAGE_SIZES_USED::PAGE_64K, "64K "},   {&PAGE_SIZES_USED::PAGE_128K, "128K "},
    {&PAGE_SIZES_USED::PAGE_256K, "256K "}, {&PAGE_SIZES_USED::PAGE_1M, "1M "},
    {&PAGE_SIZES_USED::PAGE_2M, "2M "},     {&PAGE_SIZES_USED::PAGE_16M, "16M "},
    {&PAGE_SIZES_USED::PAGE_256M, "256M "}, {&PAGE_SIZES_USED::PAGE_1G, "1G "},
    {&PAGE_SIZES_USED::PAGE_16G, "16G "},   {&PAGE_SIZES_USED::PAGE_undefined, "undefined "},
};

static char *put_page_sizes(char *out, const PAGE_SIZES_USED &pages)
{
    for (const Page_Size_Word &size : PAGE_SIZE_WORDS)
        if (pages.*size.used)
            out = put<"%s">(out, size.word);
    return out;
}

size_t auto_comment(const Node *p, char (&comment)[AUTO_COMMENT_SIZE])
{
    char *out = comment;
    out = put<"KelvoVer:%d,">(out, static_cast<int32_t>(p->kelvo_ver));
    out = put<"64bitMode:%s,">(out, p->bitmode64 ? "True" : "False");
    out = put<"LEMode:%s,">(out, p->littleendian ? "True" : "False");
    out = put<"MemUsed:%ld,">(out, static_cast<int64_t>(p->memused));
    out = put_page_sizes(put<"HostPagesUsed:">(out), p->pages_used);
    out = put_page_sizes(put<",GuestPagesUsed:">(out), p->gpages_used);
    *out = '\0';
    return static_cast<size_t>(out - comment);
}
