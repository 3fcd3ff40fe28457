function a = read_npy(path)
%READ_NPY Read a little-endian int32 .npy array written in C order.
%   A = READ_NPY(PATH) returns it as int32 with the axes reversed: C order
%   (Z, Y, X) has x fastest, which is the memory of an X-by-Y-by-Z array here.

fid = fopen(path, 'r', 'ieee-le');
if fid < 0
  error('read_npy:open', 'cannot open %s', path);
end
closer = onCleanup(@() fclose(fid));
magic = fread(fid, 6, 'uint8')';
if ~isequal(magic, [147, double('NUMPY')])
  error('read_npy:format', '%s is not a .npy file', path);
end
version = fread(fid, 2, 'uint8');
if version(1) == 1
  header_length = fread(fid, 1, 'uint16');
else
  header_length = fread(fid, 1, 'uint32');
end
header = char(fread(fid, header_length, 'uint8')');

descr = regexp(header, '''descr''\s*:\s*''([^'']*)''', 'tokens', 'once');
fortran = regexp(header, '''fortran_order''\s*:\s*(True|False)', 'tokens', 'once');
shape = regexp(header, '''shape''\s*:\s*\(([^)]*)\)', 'tokens', 'once');
if isempty(descr) || ~any(strcmp(descr{1}, {'<i4', '|i4'})) || isempty(fortran) ...
    || ~strcmp(fortran{1}, 'False') || isempty(shape)
  error('read_npy:format', '%s: only C-order little-endian int32 is read here', path);
end
parts = strtrim(strsplit(shape{1}, ','));
dims = str2double(parts(~cellfun(@isempty, parts)));

count = prod(dims);
values = fread(fid, count, 'int32=>int32');
if numel(values) ~= count
  error('read_npy:format', '%s holds %d values, its header says %d', path, numel(values), count);
end
dims = fliplr(dims);
if numel(dims) < 2
  dims = [dims, 1];
end
a = reshape(values, dims);
end
