function v = splitmerge_version()
%SPLITMERGE_VERSION Version of the splitmerge sources the module is built from.
%   V = SPLITMERGE_VERSION returns the version as text, such as '0.1.0': the
%   project's version in CMakeLists.txt, the folder above this one, which
%   BUILD_SPLITMERGE compiles into the modules. A built module reports its
%   own in SMSEGMENT's INFO.Version.
%
%   See also SPLITMERGE, SMSEGMENT, BUILD_SPLITMERGE.

file = fullfile(fileparts(fileparts(mfilename('fullpath'))), 'CMakeLists.txt');
if exist(file, 'file') ~= 2
  error('splitmerge:noVersion', 'no CMakeLists.txt at %s', file);
end
found = regexp(fileread(file), 'project\(splitmerge\s+VERSION\s+([0-9.]+)', 'tokens', 'once');
if isempty(found)
  error('splitmerge:noVersion', 'no project version in %s', file);
end
v = found{1};
end
