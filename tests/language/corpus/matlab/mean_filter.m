% MEAN_FILTER  Replace each pixel by the mean of its neighbours.
function out = mean_filter(img, n)
    if nargin < 2
        n = 3;
    end
    kernel = ones(n) / n^2;
    out = conv2(double(img), kernel, 'same');
    fprintf('filtered %d pixels\n', numel(out));
end
