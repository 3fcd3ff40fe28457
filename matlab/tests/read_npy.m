function a = read_npy(path)
%READ_NPY Read a little-endian int32 .npy array of version 1, in C order.
%   A = READ_NPY(PATH) returns it as int32 with the axes reversed: C order
%   (Z, Y, X) has x fastest, which is the memory of an X-by-Y-by-Z array here.
fid = fopen(path, 'r', 'ieee-le');
closer = onCleanup(@() fclose(fid));
head = fread(fid, 10, 'uint8=>char')';
header = fread(fid, double(head(9)) + 256 * double(head(10)), 'uint8=>char')';
if ~strcmp(head(2:6), 'NUMPY') || isempty(strfind(header, '''descr'': ''<i4''')) ...
    || isempty(strfind(header, '''fortran_order'': False'))
  error('read_npy:format', '%s: only C-order little-endian int32 is read here', path);
end
shape = regexp(header, '''shape'': \(([^)]*)\)', 'tokens', 'once');
dims = fliplr(str2double(regexp(shape{1}, '\d+', 'match')));
a = reshape(fread(fid, prod(dims), 'int32=>int32'), [dims, 1]);
end
