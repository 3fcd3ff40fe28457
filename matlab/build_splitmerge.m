function build_splitmerge(output_dir)
%BUILD_SPLITMERGE Build the splitmerge module from the C++ sources.
%   BUILD_SPLITMERGE builds the module next to this file: splitmerge.mex with
%   mkoctfile --mex in Octave, splitmerge.<mexext> with mex in MATLAB.
%   BUILD_SPLITMERGE(OUTPUT_DIR) puts it in OUTPUT_DIR instead.
%
%   Needs a C++20 compiler (GCC 10, Clang 12, MSVC 2019 16.10 or later); in
%   MATLAB choose it with mex -setup C++.
%
%   See also SPLITMERGE.

here = fileparts(mfilename('fullpath'));
root = fileparts(here);
if nargin < 1
  output_dir = here;
end
src = fullfile(root, 'src');
sources = [library_sources(src), ...
           {fullfile(src, 'gateway', 'read_call.cpp'), ...
            fullfile(src, 'gateway', 'mex_gateway.cpp'), ...
            fullfile(src, 'gateway', 'frame_store.cpp'), ...
            fullfile(src, 'gateway', 'host.cpp')}];
includes = {['-I' src], ['-I' fullfile(root, 'include')]};

if exist('OCTAVE_VERSION', 'builtin')
  % mkoctfile takes its compiler flags from the environment. No contraction
  % of multiply-adds: results must be bit-identical to the library's tests.
  previous = getenv('CXXFLAGS');
  setenv('CXXFLAGS', '-std=c++20 -O2 -ffp-contract=off');
  restore = onCleanup(@() setenv('CXXFLAGS', previous));
  module = fullfile(output_dir, 'splitmerge.mex');
  [output, status] = mkoctfile('--mex', '-o', module, includes{:}, sources{:});
  if status ~= 0
    error('splitmerge:buildFailed', 'mkoctfile failed:\n%s', output);
  end
else
  % libut holds MATLAB's Ctrl-C flag, which the module polls during a run.
  if ispc
    flags = {'COMPFLAGS=$COMPFLAGS /std:c++20 /fp:precise', '-llibut'};
  else
    flags = {'CXXFLAGS=$CXXFLAGS -std=c++20 -ffp-contract=off', '-lut'};
  end
  module = fullfile(output_dir, ['splitmerge.' mexext]);
  mex('-R2018a', '-output', fullfile(output_dir, 'splitmerge'), flags{:}, includes{:}, ...
      sources{:});
end
% The new module must answer from now on, not the help file that the
% interpreter may have found before it existed.
clear('splitmerge');
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
