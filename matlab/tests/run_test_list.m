function run_test_list(tests, varargin)
%RUN_TEST_LIST Runs test functions and reports like the other test runners.
%   RUN_TEST_LIST(TESTS, ARGS...) calls every function handle in the cell
%   array TESTS with ARGS, prints 'ok' or 'FAIL' and its name per test, then
%   'N passed, N failed', and exits with status 1 when a test failed.
passed = 0;
failed = 0;
for k = 1:numel(tests)
  name = func2str(tests{k});
  try
    tests{k}(varargin{:});
    passed = passed + 1;
    fprintf('ok    %s\n', name);
  catch err
    failed = failed + 1;
    fprintf('FAIL  %s: %s\n', name, err.message);
  end
end
fprintf('%d passed, %d failed\n', passed, failed);
if failed > 0
  exit(1);
end
end
