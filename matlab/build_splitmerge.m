function build_splitmerge(output_dir)
%BUILD_SPLITMERGE Build the splitmerge modules from the C++ sources.
%   BUILD_SPLITMERGE builds the two modules next to this file: splitmerge
%   (the raw module) and smsegment_mex (the gateway of SMSEGMENT), as .mex
%   files with mkoctfile --mex in Octave, as .<mexext> files with mex in
%   MATLAB. BUILD_SPLITMERGE(OUTPUT_DIR) puts them in OUTPUT_DIR instead.
%
%   Needs a C++20 compiler (GCC 10, Clang 12, MSVC 2019 16.10 or later); in
%   MATLAB choose it with mex -setup C++.
%
%   See also SPLITMERGE, SMSEGMENT.

here = fileparts(mfilename('fullpath'));
root = fileparts(here);
if nargin < 1
  output_dir = here;
end
src = fullfile(root, 'src');
gateway = @(name) fullfile(src, 'gateway', name);
library = library_sources(src);
shared = {gateway('read_call.cpp'), gateway('regions_output.cpp'), gateway('host.cpp')};
includes = {['-I' src], ['-I' fullfile(root, 'include')]};
version = project_version(root);
if exist('OCTAVE_VERSION', 'builtin')
  % mkoctfile takes its compiler flags from the environment (through a
  % shell, hence the escaped quotes). No contraction of multiply-adds:
  % results must be bit-identical to the library's tests.
  previous = getenv('CXXFLAGS');
  setenv('CXXFLAGS', ['-std=c++20 -O2 -ffp-contract=off -DSPLITMERGE_VERSION=\"' version '\"']);
  restore = onCleanup(@() setenv('CXXFLAGS', previous));
  % The library is compiled once and linked into both modules.
  objects_dir = tempname();
  mkdir(objects_dir);
  remove_objects = onCleanup(@() remove_folder(objects_dir));
  objects = cell(size(library));
  for k = 1:numel(library)
    [~, base] = fileparts(library{k});
    objects{k} = fullfile(objects_dir, sprintf('%d_%s.o', k, base));
    [output, status] = mkoctfile('-c', includes{:}, library{k}, '-o', objects{k});
    if status ~= 0
      error('splitmerge:buildFailed', 'mkoctfile failed on %s:\n%s', library{k}, output);
    end
  end
  library = objects;
end
modules = struct('name', {'splitmerge', 'smsegment_mex'}, ...
                 'sources', {[shared, {gateway('mex_gateway.cpp'), ...
                                       gateway('frame_store.cpp')}, library], ...
                             [shared, {gateway('smsegment_gateway.cpp')}, library]});
for k = 1:numel(modules)
  build_module(modules(k).name, modules(k).sources, includes, version, output_dir);
end
end

function build_module(name, sources, includes, version, output_dir)
if exist('OCTAVE_VERSION', 'builtin')
  module = fullfile(output_dir, [name '.mex']);
  % The version is in CXXFLAGS already.
  [output, status] = mkoctfile('--mex', '-o', module, includes{:}, sources{:});
  if status ~= 0
    error('splitmerge:buildFailed', 'mkoctfile failed:\n%s', output);
  end
else
  % libut holds MATLAB's Ctrl-C flag, which the module polls during a run.
  if ispc
    options = {'COMPFLAGS=$COMPFLAGS /std:c++20 /fp:precise', '-llibut'};
  else
    options = {'CXXFLAGS=$CXXFLAGS -std=c++20 -ffp-contract=off', '-lut'};
  end
  module = fullfile(output_dir, [name '.' mexext]);
  mex('-R2018a', '-output', fullfile(output_dir, name), options{:}, includes{:}, ...
      ['-DSPLITMERGE_VERSION="' version '"'], sources{:});
end
% The new module must answer from now on, not the help file that the
% interpreter may have found before it existed.
clear(name);
rehash();
fprintf('built %s\n', module);
end

function files = library_sources(src)
% The library's sources as src/library_sources.txt lists them (one path per
% line, relative to the repository root, # for comments), the list CMake
% reads; the gateway's own files are added by name.
root = fileparts(src);
list = fullfile(src, 'library_sources.txt');
if exist(list, 'file') ~= 2
  error('splitmerge:buildFailed', 'no list of the library sources at %s', list);
end
lines = strtrim(regexp(fileread(list), '\r?\n', 'split'));
lines = lines(~cellfun(@isempty, lines) & ~strncmp(lines, '#', 1));
files = cell(1, numel(lines));
for k = 1:numel(lines)
  parts = strsplit(lines{k}, '/');
  files{k} = fullfile(root, parts{:});
end
if isempty(files)
  error('splitmerge:buildFailed', 'no library sources listed in %s', list);
end
end

% The version in the project's CMakeLists.txt, which the library reports.
function version = project_version(root)
text = fileread(fullfile(root, 'CMakeLists.txt'));
found = regexp(text, 'project\(splitmerge\s+VERSION\s+([0-9.]+)', 'tokens', 'once');
if isempty(found)
  error('splitmerge:buildFailed', 'no project version in %s', fullfile(root, 'CMakeLists.txt'));
end
version = found{1};
end

function remove_folder(folder)
confirm_recursive_rmdir(false, 'local');
rmdir(folder, 's');
end
