#include <sys/stat.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>

#include "context/run_context.hpp"
#include "output/output.hpp"

namespace splitmerge {

namespace {

struct saved_statistic {
  block* head;
  std::int64_t value;
};

}  // namespace

std::int32_t save_regionlist(run_context& ctx, regionlist head, const char* path) noexcept {
  std::size_t n = 0;
  for (const block* h = head; h != nullptr; h = ctx.block_at(h->next_region)) ++n;
  auto saved = create_array<saved_statistic>(ctx, n, alloc_site::save_array);
  if (saved == nullptr) return status_no_memory;
  std::size_t i = 0;
  for (block* h = head; h != nullptr; h = ctx.block_at(h->next_region), ++i) {
    saved[i] = {h, h->variables[0]};
    h->variables[0] = static_cast<std::int64_t>(i);  // neighbours are written as indices
  }
  std::FILE* file = std::fopen(path, "w");
  if (file == nullptr) {
    ctx.allocator.release(saved);
    return status_no_file;
  }
  std::fprintf(file, "%d\n%d\n%d\n%2.4f\n%d\n%d\n", ctx.im_format_xy, ctx.im_format_z, 2, 4.0,
               static_cast<int>(n), ctx.pred_choice);
  for (i = 0; i < n && !ctx.interrupt_due(); ++i) {
    const block* h = saved[i].head;
    std::fprintf(file, "%" PRId64 " %" PRId64 "\n", saved[i].value, h->variables[1]);
    for (const block* b = h; b != nullptr; b = ctx.block_at(b->next_block))
      std::fprintf(file, "%" PRIx64 "\n", ctx.full_code(b));
    std::fprintf(file, "%d\n", 0);
    for (const nb_node* e = ctx.entry_at(h->nb_pointers[0]); e != nullptr;
         e = ctx.entry_at(e->next))
      std::fprintf(file, "%" PRId64 "\n", ctx.block_at(e->region)->variables[0]);
    std::fputs("-1\n", file);
  }
  ctx.allocator.release(saved);
  // A full disk or a file size limit shows only here: report it, and leave
  // no truncated (or interrupted) file that could pass for a complete one.
  const bool write_failed = std::ferror(file) != 0;
  if (std::fclose(file) != 0 || write_failed || ctx.interrupted) {
    struct stat written {};
    const int reason = errno;  // the caller may report why the write failed
    if (::stat(path, &written) == 0 && S_ISREG(written.st_mode)) std::remove(path);
    errno = reason;
    return ctx.interrupted ? status_interrupted : status_no_file;
  }
  return 0;
}

}  // namespace splitmerge
